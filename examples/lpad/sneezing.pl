% Sneezing has two causes, flu and hay fever, each a noisy cause.
%   P(sneezing(bob)) = 1 - (1 - 0.4*0.7) * (1 - 0.2*0.6) = 0.3664
%   P(flu(bob) | sneezing(bob)) = 0.4 * (1 - 0.3*0.88) / 0.3664 ... see tests
% Run: swipl -g main -t halt examples/lpad/sneezing.pl
:- use_module('../../prolog/cplogic').

:- begin_lpad.
sneezing(X):0.7 ; null:0.3 :- flu(X).
sneezing(X):0.6 :- hay_fever(X).
flu(bob):0.4.
hay_fever(bob):0.2.
:- end_lpad.

main :-
    prob(sneezing(bob), P1),
    format("P(sneezing(bob)) = ~6g~n", [P1]),
    prob(flu(bob), [sneezing(bob)], P2),
    format("P(flu(bob) | sneezing(bob)) = ~6g~n", [P2]),
    prob(flu(bob), [\+ sneezing(bob)], P3),
    format("P(flu(bob) | \\+ sneezing(bob)) = ~6g~n", [P3]).

