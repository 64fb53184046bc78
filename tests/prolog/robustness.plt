% Every predicate fed malformed arguments: unbound variables, floats, strings,
% wrong arities, improper, partial and cyclic lists, cyclic terms, a list of a
% million elements and terms nested a hundred thousand deep. Each call
% succeeds, fails, or raises an ISO error term; nothing is printed; the
% session goes on and the theory still answers.
:- use_module('../../prolog/cplogic').
:- use_module(test_support).
:- use_module(library(plunit)).
:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(random)).

% Arguments that are valid in each position, to put around a malformed one.
% Malformed events use head atoms hj(_) and body atoms bj(_) only, so they
% cannot make the theory cyclic or touch the alarm's atoms.
predicate(vorn_cp_theory_set_settings(_, 1, 0, cpts, cst, x)).
predicate(vorn_cp_theory_query_silent(_, hj(1), [e(bj(1), 1)], _)).
predicate(vorn_cp_theory_print_graphviz(_, 'graph.dot')).
predicate(vorn_cp_theory_query(_, hj(1), [], _)).
predicate(vorn_cp_theory_add_ground_event(_, ground(0, [h(hj(2), 0.5)], [bj(2)]))).
predicate(vorn_cp_theory_compile(_)).
predicate(vorn_cp_theory_atom_table_success(_, hj(3))).
predicate(vorn_cp_theory_save(_, 'saved.cpl')).
predicate(vorn_cp_theory_add_event(_, e([h(hj(4), 0.5)], [bj(4)]))).
predicate(vorn_cp_theory_add_fo_event(_, 0, 2)).
predicate(vorn_cp_theory_atom_in_table(_, hj(5), _)).

% Fixed malformed values: one of each kind.
fixed(_).
fixed(1.5).
fixed("string").
fixed(-7).
fixed(2147483648).
fixed(123456789012345678901234567890).
fixed(foo).
fixed([]).
fixed('').
fixed(f(_)).
fixed(f(1.5)).
fixed([a|_]).
fixed([a|b]).
fixed(X) :- X = f(X).
fixed(L) :- L = [a|L].
fixed(L) :- L = [e(hj(1), 1), e(bj(1), 0)|L].
fixed(p(L)) :- L = [1, 2|L].
fixed(e(_)).
fixed(e([h(hj(6))], [])).
fixed(e([h(hj(6), 1)], [])).
fixed(e([h(_, 0.5)], [])).
fixed(e([h(hj(6), "0.5")], [])).
fixed(e(foo, bar)).
fixed(e([foo], [1.5])).
fixed(e([h(hj(6), 0.5)], [\+ _])).
fixed(e([h(hj(6), 0.5)], [\+])).
fixed(e([h(hj(6), 0.5)], [\+ f(1.5)])).
fixed(e([h(hj(6), 0.5)|T], [])) :- T = [h(hj(7), 0.25)|T].
fixed(ground(x, [], [])).
fixed(ground(0, foo, bar)).
fixed(ground(99, [], [])).
fixed(ground(-1, [], [])).
fixed(ground(0, [h(hj(8), 0.5)], [bj(8), bj(9)])).
fixed(ground(0, [h(_, 0.5)], [bj(8)])).
fixed([e(_, 1)]).
fixed([e(hj(1), x)]).
fixed([e(hj(1))]).
fixed([1, 2, 3]).
fixed(\+ a).
fixed(p([a|_])).
fixed(p([a|b])).
fixed('C3').
fixed("s"-1).
fixed(1.0Inf).
fixed(_{a:1}).
fixed(L) :- length(L, 1000000), maplist(=(0.5), L).
fixed(p(L)) :- numlist(1, 1000000, L).
fixed(T) :- nested(100000, f, T).
fixed(T) :- nested(100000, list, T).
fixed(e([h(T, 0.5)], [])) :- nested(100000, f, T).
fixed([e(T, 1)]) :- nested(100000, list, T).

nested(N, Kind, T) :-
    nested(N, Kind, a, T).
nested(0, _, T, T) :- !.
nested(N, f, T0, T) :- N1 is N - 1, nested(N1, f, f(T0), T).
nested(N, list, T0, T) :- N1 is N - 1, nested(N1, list, [T0], T).

% Random malformed values, built from the kinds above.
junk(0, T) :- !,
    random_member(T, [_, 0.25, "text", 7, -1, 4294967296, hj(9), bj(9), [], '', j]).
junk(D, T) :-
    D1 is D - 1,
    random_between(0, 8, K),
    junk(K, D1, T).
junk(0, D, T) :- junk(0, T0), ( D > 0 -> junk(D, T1) ; T1 = T0 ), T = f(T0, T1).
junk(1, D, [H|T]) :- junk(D, H), junk(D, T).
junk(2, D, L) :- junk(D, H), L = [H|L].
junk(3, D, e(H, B)) :- junk(D, H), junk(D, B).
junk(4, D, e([h(hj(J), P)], [B])) :- random_between(10, 12, J), junk(D, P), junk(D, B).
junk(5, D, ground(N, H, B)) :- random_between(-1, 2, N), junk(D, H), junk(D, B).
junk(6, D, [e(A, V)]) :- junk(D, A), junk(D, V).
junk(7, D, \+ X) :- junk(D, X).
junk(8, D, T) :- junk(0, T0), junk(D, T1), T = [T0|T1].

% A predicate with a malformed value in position Position.
malformed_call(T, Goal, Value, Position) :-
    predicate(Template),
    malformed_call(Template, T, Goal, Value, Position).

malformed_call(Template, T, Goal, Value, Position) :-
    Template =.. [Name, _|Args],
    Goal0 =.. [Name, T|Args],
    functor(Goal0, _, Arity),
    between(1, Arity, Position),
    copy_term(Goal0, Goal),
    setarg(Position, Goal, Value).

call_quietly(Goal) :-
    catch(with_output_to(string(_), ignore(Goal)), E, true),
    (   var(E)
    ->  true
    ;   E = error(Formal, _), nonvar(Formal),
        functor(Formal, Name, _),
        memberchk(Name, [ instantiation_error, type_error, domain_error, existence_error,
                          representation_error, permission_error, cplogic_error ])
    ->  true
    ;   format(user_error, "unexpected ~q~n", [E])
    ).

alarm_answers(T, [P1, P2, P3]) :-
    vorn_cp_theory_set_settings(T, 1, 0, cpts, cst, x),
    vorn_cp_theory_query_silent(T, alarm, [], P1),
    vorn_cp_theory_query_silent(T, burglary, [e(alarm, 1)], P2),
    vorn_cp_theory_query_silent(T, calls(john), [], P3).

:- begin_tests(robustness).

test(malformed_arguments) :-
    in_temp_dir(
        ( alarm_theory(T),
          vorn_cp_theory_add_fo_event(T, 0, 2),
          set_random(seed(7)),
          capture_stderr(
              ( forall(( fixed(V), malformed_call(T, Goal, V, _) ), call_quietly(Goal)),
                forall(( predicate(Template), between(1, 1000, _) ),
                       ( random_between(0, 4, D),
                         junk(D, V),
                         findall(G-P, malformed_call(Template, T, G, V, P), Calls),
                         random_member(Goal-_, Calls),
                         call_quietly(Goal) ))
              ), Err),
          alarm_answers(T, [P1, P2, P3]),
          assertion(near(P1, 0.1628)),
          assertion(near(P2, 0.0908/0.1628)),
          assertion(near(P3, 0.1721)),
          assertion(Err == "")
        )).

:- end_tests(robustness).
