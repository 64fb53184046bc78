% Reachability over a graph with cycles: a -> b -> c -> a, b -> d -> e -> b,
% c -> e. Every edge is there with its own probability, read from link/3 by
% the body; path/2 is the least model of the edges that are there.
%   P(path(a, d)) = P(a->b) P(b->d) = 0.6 * 0.5 = 0.3
%   P(path(a, a)) = P(a->b) P(b->c) P(c->a) = 0.6 * 0.7 * 0.8 = 0.336
%   P(path(a, e)) = 0.6 * (1 - (1 - 0.5*0.9) * (1 - 0.7*0.3)) = 0.3393
%   P(path(a, e), \+ path(a, d)) = 0.6 * 0.5 * (0.7*0.3) = 0.063
%   P(path(a, _)) = P(a->b) = 0.6
% Run: swipl -g main -t halt examples/lpad/graph.pl
:- use_module('../../prolog/cplogic').

link(a, b, 0.6).  link(b, c, 0.7).  link(c, a, 0.8).  link(b, d, 0.5).
link(d, e, 0.9).  link(e, b, 0.4).  link(c, e, 0.3).

:- begin_lpad.
edge(X, Y):P :- link(X, Y, P).
path(X, Y) :- edge(X, Y).
path(X, Y) :- edge(X, Z), path(Z, Y).
:- end_lpad.

main :-
    prob(path(a, d), P1),
    format("P(path(a, d)) = ~6g~n", [P1]),
    prob((path(a, e), \+ path(a, d)), P2),
    format("P(path(a, e), \\+ path(a, d)) = ~6g~n", [P2]),
    prob(path(a, _), P3),
    format("P(path(a, _)) = ~6g~n", [P3]),
    prob_all(path(a, X), Answers),
    forall(member(path(a, X)-P, Answers),
           format("P(path(a, ~w)) = ~6g~n", [X, P])),
    prob(path(a, e), [\+ edge(c, e)], P4),
    format("P(path(a, e) | \\+ edge(c, e)) = ~6g~n", [P4]).
