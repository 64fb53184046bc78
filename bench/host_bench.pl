% Benchmarks of the Prolog host: event entry, and a noisy-or query to set
% against the same query made in C++ (bench/host_bench.cpp).
%
%   swipl bench/host_bench.pl              (after the README's build)
%
% Times are process CPU seconds of the calls alone (the machine may be shared;
% Google Benchmark's CPU column is the counterpart); the theory objects are
% made and filled before the timed part where that is not what is measured.

:- use_module('../prolog/cplogic').
:- use_module(library(aggregate)).
:- use_module(library(apply)).
:- use_module(library(yall)).
:- use_module(library(lists)).
:- initialization(main, main).

main :-
    bench_add_event(100000),
    bench_add_ground_event(100000),
    bench_noisy_or(1000, 5, 20).

timed(Goal, Seconds) :-
    garbage_collect,
    statistics(process_cputime, T0),
    call(Goal),
    statistics(process_cputime, T1),
    Seconds is T1 - T0.

% a(I):0.5 :- b(I), for I in 1..N.
bench_add_event(N) :-
    pelm_new(vorn_cp_theory, T),
    timed(forall(between(1, N, I),
                 vorn_cp_theory_add_event(T, e([h(a(I), 0.5)], [b(I)]))),
          S),
    format("add_event: ~D ground events in ~3f s~n", [N, S]).

% The same rule as first-order event 0, each grounding sent twice.
bench_add_ground_event(N) :-
    pelm_new(vorn_cp_theory, T),
    vorn_cp_theory_add_fo_event(T, 0, 2),
    timed(forall(between(1, N, I),
                 ( K is (I + 1) // 2,
                   vorn_cp_theory_add_ground_event(T, ground(0, [h(a(K), 0.5)], [b(K)]))
                 )),
          S),
    Distinct is (N + 1) // 2,
    format("add_ground_event: ~D groundings (~D distinct) in ~3f s~n", [N, Distinct, S]).

% The noisy-or family of bench/theory_bench.cpp: q with N causes, the rules
% q:P(I) for I in 0..N-1; P(q) by query_silent. The median over Batches
% batches of Repeats queries each.
bench_noisy_or(N, Batches, Repeats) :-
    pelm_new(vorn_cp_theory, T),
    vorn_cp_theory_set_settings(T, 1, 0, cf, cst, x),
    Last is N - 1,
    forall(between(0, Last, I),
           ( cause_probability(I, P),
             vorn_cp_theory_add_event(T, e([h(q, P)], []))
           )),
    vorn_cp_theory_compile(T),
    vorn_cp_theory_query_silent(T, q, [], Q),
    aggregate_all(bag(F), ( between(0, Last, I), cause_probability(I, P), F is 1 - P ), Fs),
    foldl([F, A0, A]>>(A is A0 * F), Fs, 1.0, None),
    Exact is 1 - None,
    findall(Ms, ( between(1, Batches, _),
                  timed(forall(between(1, Repeats, _),
                               vorn_cp_theory_query_silent(T, q, [], _)), S),
                  Ms is S / Repeats * 1000 ),
            Times),
    msort(Times, Sorted),
    length(Sorted, L),
    Middle is (L + 1) // 2,
    nth1(Middle, Sorted, Median),
    format("query_silent noisy-or n=~D: ~3f ms per query, median of ~d batches~n",
           [N, Median, Batches]),
    format("  P(q) = ~10f, exact ~10f~n", [Q, Exact]).

cause_probability(I, P) :-
    P is 0.01 + 0.3 * ((I * 7919) mod 100) / 100.0.
