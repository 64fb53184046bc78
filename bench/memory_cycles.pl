% Memory given back: many create-use-free cycles of theory objects, each
% with atoms of its own, and the resident set size before and after.
%
%   swipl bench/memory_cycles.pl [Cycles [functors]]   (after the README's build;
%                                                      Cycles defaults to 1,000,000)
%
% A cycle makes a theory, adds two rules over fresh atoms, asks a query with
% evidence, and frees the theory; a copy made in every hundredth cycle is left
% to garbage collection. With "functors", every tenth cycle also uses a fresh
% functor name: SWI-Prolog keeps every functor, and its name, for the life of
% the process, so that run shows what the host itself keeps.
% RSS is read from /proc/self/status after a warm-up of 10,000 cycles and at
% the end, each time after garbage collection of terms and atoms; the atom
% count shows whether the atoms of freed theories can be collected.

:- use_module('../prolog/cplogic').
:- use_module(library(readutil)).
:- initialization(main, main).

main :-
    current_prolog_flag(argv, Argv),
    (   Argv = [A|_], atom_number(A, N) -> true ; N = 1000000 ),
    (   memberchk(functors, Argv) -> Fresh = true ; Fresh = false ),
    nb_setval(fresh_functors, Fresh),
    cycles(1, 10000),
    report(start, RSS0, Atoms0),
    statistics(cputime, T0),
    cycles(10001, N),
    statistics(cputime, T1),
    report(end, RSS1, Atoms1),
    Growth is 100 * (RSS1 - RSS0) / RSS0,
    Seconds is T1 - T0,
    format("~D cycles in ~1f s CPU: RSS ~D -> ~D kB (~1f %), atoms ~D -> ~D~n",
           [N, Seconds, RSS0, RSS1, Growth, Atoms0, Atoms1]).

cycles(From, To) :-
    forall(between(From, To, I), cycle(I)).

cycle(I) :-
    atom_concat(cause_, I, Cause),
    (   I mod 10 =:= 0, nb_getval(fresh_functors, true)
    ->  atom_concat(effect_, I, Name)
    ;   Name = effect
    ),
    Effect =.. [Name, Cause],
    pelm_new(vorn_cp_theory, T),
    vorn_cp_theory_add_event(T, e([h(Cause, 0.3)], [])),
    vorn_cp_theory_add_event(T, e([h(Effect, 0.5)], [Cause])),
    cplogic_prob(T, Cause, [e(Effect, 1)], P),
    P =:= 1.0,
    (   I mod 100 =:= 0
    ->  pelm_new(vorn_cp_theory, Copy), pelm_copy(Copy, T)
    ;   true
    ),
    pelm_free(T).

report(When, RSS, Atoms) :-
    garbage_collect,
    garbage_collect_atoms,
    % one more call frees the objects whose handles were just collected
    pelm_new(vorn_cp_theory, T),
    pelm_free(T),
    statistics(atoms, Atoms),
    rss_kb(RSS),
    format("~w: RSS ~D kB, ~D atoms~n", [When, RSS, Atoms]).

rss_kb(KB) :-
    read_file_to_string('/proc/self/status', Text, []),
    split_string(Text, "\n", "", Lines),
    member(Line, Lines),
    split_string(Line, ":", " \t", ["VmRSS", Value]),
    !,
    split_string(Value, " ", "", [Number|_]),
    number_string(KB, Number).
