% A fair coin, unless it is the biased one.
%   P(heads(c1)) = 0.9*0.5 + 0.1*0.6 = 0.51
% Run: swipl -g main -t halt examples/lpad/coin.pl
:- use_module('../../prolog/cplogic').

:- begin_lpad.
heads(C):0.5 ; tails(C):0.5 :- toss(C), \+ biased(C).
heads(C):0.6 ; tails(C):0.4 :- toss(C), biased(C).
biased(C):0.1 :- toss(C).
toss(c1).
:- end_lpad.

main :-
    prob(heads(c1), P1),
    format("P(heads(c1)) = ~6g~n", [P1]),
    prob(biased(c1), [heads(c1)], P2),
    format("P(biased(c1) | heads(c1)) = ~6g~n", [P2]).

