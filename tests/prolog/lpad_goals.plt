% Goals as queries and evidence, the P::H notation with query/evidence facts,
% and bodies with disjunctions, not/1 and probabilities they bind, against
% hand-worked values.
:- use_module('../../prolog/cplogic').
:- use_module(library(plunit)).

w(b, 0.2). w(c, 0.5).

:- begin_lpad.
0.4::flu(bob).
hay_fever(bob):0.2.
0.7::sneezing(X) ; 0.3::null :- flu(X).
sneezing(X):0.6 :- hay_fever(X).
% one choice per grounding, whatever disjunct holds
0.5::cough(X) :- ( flu(X) ; hay_fever(X) ).
P::weak(X) :- w(X, P).
strong(X):P :- w(X, P0), P is 1 - P0.
rested(X) :- flu(X), not(hay_fever(X)).
query(sneezing(bob)).
query(weak(_)).
evidence(hay_fever(bob), false).
:- end_lpad.

near(P, Q) :- abs(P - Q) =< 1.0e-12.

% The tests run in a module of their own; the program is user's.

:- begin_tests(lpad_goals).

% P(flu) = 0.4, P(hay_fever) = 0.2, independent.
test(goal_queries) :-
    forall(member(G-Expected,
                  [ (flu(bob), \+ hay_fever(bob))-(0.4 * 0.8),
                    (flu(bob) ; hay_fever(bob))-(1 - 0.6 * 0.8),
                    \+ (flu(bob), hay_fever(bob))-(1 - 0.4 * 0.2),
                    sneezing(_)-0.3664,
                    cough(bob)-(0.5 * (1 - 0.6 * 0.8)),
                    rested(bob)-(0.4 * 0.8),
                    (weak(X), strong(X))-(1 - (1 - 0.2 * 0.8) * (1 - 0.5 * 0.5)),
                    member(x, [x])-1.0,
                    undefined_atom-0.0 ]),
           ( user:prob(G, P), E is Expected, near(P, E) )).

% Evidence may be goals: P(flu | flu or hay_fever) = 0.4 / 0.52.
test(goal_evidence) :-
    user:prob(flu(bob), [(flu(bob) ; hay_fever(bob))], P1), near(P1, 0.4 / 0.52),
    user:prob(hay_fever(bob), [\+ (flu(bob), \+ hay_fever(bob))], P2),
    near(P2, 0.2 / (1 - 0.4 * 0.8)).

test(instances) :-
    user:prob_all(weak(X), Weak),
    Weak = [weak(b)-Pb, weak(c)-Pc],
    near(Pb, 0.2), near(Pc, 0.5),
    user:prob_all((weak(X), \+ strong(X)), [weak(c)], Both),
    Both = [(weak(b), \+ strong(b))-Q1, (weak(c), \+ strong(c))-Q2],
    near(Q1, 0.2 * 0.2), near(Q2, 0.5),
    user:prob_all(sneezing(bob), [\+ sneezing(bob)], [sneezing(bob)-0.0]).

% query/1 and evidence/1,2 facts are the program's questions.
test(program_queries) :-
    user:lpad_queries(Queries, Evidence),
    Queries =@= [sneezing(bob), weak(_)],
    Evidence == [\+ hay_fever(bob)],
    user:prob_queries(Answers),
    Answers = [sneezing(bob)-S, weak(b)-Wb, weak(c)-Wc],
    near(S, 0.28), near(Wb, 0.2), near(Wc, 0.5).

:- end_tests(lpad_goals).
