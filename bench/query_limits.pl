% How fast a query stops: at a time limit, and at a table that exceeds
% max_table_entries; and that the theory answers the next query.
%
%   swipl bench/query_limits.pl            (after the README's build)
%
% Wall-clock seconds from the call to its exception. The theories:
%   cylinder: W columns and L layers over g(0, J):0.5, each atom caused by two
%             atoms of the layer below; P(g(L, 1)) takes a few seconds.
%   wide:     q caused by N causes c(I):0.5 with 0.1 each, conversion cpts:
%             its tables double with every cause.

:- use_module('../prolog/cplogic').
:- use_module(library(time)).
:- initialization(main, main).

main :-
    cylinder(11, 6000, C),
    stop(call_with_time_limit(1, cplogic_prob(C, g(6000, 1), [], _)),
         "cylinder 11x6000, call_with_time_limit(1, ...)"),
    check(C, g(3, 1), cylinder(11, 3)),
    wide(30, W),
    stop(cplogic_prob(W, q, [], _), "wide 30, default max_table_entries (2^24)"),
    stop(cplogic_prob(W, q, [], _, [max_table_entries(65536)]),
         "wide 30, max_table_entries(65536)"),
    check(W, c(1), wide(2)).

stop(Goal, Label) :-
    get_time(T0),
    catch(Goal, E, true),
    get_time(T1),
    Seconds is T1 - T0,
    (   var(E) -> What = "no exception" ; E = error(F, _) -> What = F ; What = E ),
    format("~s: ~q after ~3f s~n", [Label, What, Seconds]).

% The stopped theory answers as a fresh one built the same way.
check(T, Query, Fresh) :-
    cplogic_prob(T, Query, [], P),
    call(Fresh, F),
    cplogic_prob(F, Query, [], Expected),
    (   abs(P - Expected) < 1.0e-12
    ->  format("next query: ~q = ~w, as on a fresh theory~n", [Query, P])
    ;   format("next query: ~q = ~w, a fresh theory says ~w~n", [Query, P, Expected])
    ).

cylinder(W, L, T) :-
    pelm_new(vorn_cp_theory, T),
    forall(between(1, W, J), vorn_cp_theory_add_event(T, e([h(g(0, J), 0.5)], []))),
    forall(( between(1, L, K), K0 is K - 1, between(1, W, J), J1 is J mod W + 1 ),
           ( vorn_cp_theory_add_event(T, e([h(g(K, J), 0.6)], [g(K0, J)])),
             vorn_cp_theory_add_event(T, e([h(g(K, J), 0.3)], [g(K0, J1)])) )).

wide(N, T) :-
    pelm_new(vorn_cp_theory, T),
    vorn_cp_theory_set_settings(T, 1, 0, cpts, cst, x),
    forall(between(1, N, I), vorn_cp_theory_add_event(T, e([h(c(I), 0.5)], []))),
    forall(between(1, N, I), vorn_cp_theory_add_event(T, e([h(q, 0.1)], [c(I)]))).
