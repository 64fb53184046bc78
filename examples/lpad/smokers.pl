% Smokers in a small social network: stress makes people smoke, and friends
% who smoke draw them in. Friendship here points one way (who influences
% whom), so the ground program has no cycle.
%   P(smokes(ann)) = 0.3*0.4 = 0.12
%   P(smokes(bob)) = 1 - (1 - 0.12) * (1 - 0.2*0.12) = 0.14112
% Run: swipl -g main -t halt examples/lpad/smokers.pl
:- use_module('../../prolog/cplogic').

person(P) :- member(P, [ann, bob, carl, dana]).
influences(ann, bob).
influences(ann, carl).
influences(bob, dana).
influences(carl, dana).

:- begin_lpad.
stress(X):0.3 :- person(X).
smokes(X):0.4 :- stress(X).
smokes(X):0.2 :- influences(Y, X), smokes(Y).
cancer(X):0.1 :- smokes(X).
:- end_lpad.

main :-
    forall(person(X),
           ( prob(smokes(X), P),
             format("P(smokes(~w)) = ~6g~n", [X, P]) )),
    prob(smokes(ann), [cancer(dana)], P2),
    format("P(smokes(ann) | cancer(dana)) = ~6g~n", [P2]).

