% Creating, copying, freeing and collecting theory objects.
:- use_module(test_support).

small_theory(T) :- pelm_new(vorn_cp_theory, T), add_events(T, [e([h(a, 0.25)], [])]).

answers(T, P) :- vorn_cp_theory_query_silent(T, a, [], P).

:- begin_tests(lifecycle).

% Both forms make a theory of its own; a copy shares its source's state.
test(create_and_copy) :-
    pelm_new(vorn_cp_theory, init(anything), T),
    add_events(T, [e([h(a, 0.5)], [])]),
    small_theory(Source),
    pelm_new(vorn_cp_theory, Target),
    pelm_copy(Target, Source),
    answers(Target, 0.25), answers(T, 0.5),
    add_events(Target, [e([h(b, 0.5)], [a])]),
    vorn_cp_theory_query_silent(Source, b, [], P),
    near(P, 0.125).
test(free_in_any_order) :-
    forall(member(Order, [[source, copy], [copy, source], [copy], [source]]),
           ( small_theory(Source),
             pelm_new(vorn_cp_theory, Copy), pelm_copy(Copy, Source),
             forall(member(Which, Order),
                    ( Which == source -> pelm_free(Source) ; pelm_free(Copy) )),
             forall(member(Which-Object, [source-Source, copy-Copy]),
                    (   memberchk(Which, Order)
                    ->  catch(answers(Object, _), E, true),
                        assertion(subsumes_term(error(existence_error(vorn_cp_theory, Object), _), E))
                    ;   answers(Object, 0.25)
                    ))
           )).
test(print, [true(Out == "a:0.25 :- true.\n")]) :-
    small_theory(T),
    vorn_cp_theory_compile(T),
    with_output_to(string(Out), pelm_print(T)).
% Objects no longer referenced from Prolog are freed by garbage collection,
% copies included; objects made after that, possibly in the slots of the
% collected ones, answer for themselves.
test(garbage_collection) :-
    forall(between(1, 20, _),
           ( small_theory(T), pelm_new(vorn_cp_theory, Copy), pelm_copy(Copy, T) )),
    garbage_collect, garbage_collect_atoms,
    findall(New, ( between(1, 20, _), pelm_new(vorn_cp_theory, New),
                   add_events(New, [e([h(a, 0.75)], [])]) ), News),
    forall(member(New, News), answers(New, 0.75)).
% A theory holds the atoms of its terms (rules, groundings, atom table): they
% survive atom garbage collection while it lives, and are released with it.
test(atoms_held_and_released) :-
    garbage_collect_atoms,
    statistics(atoms, Before),
    fresh_atom_theory(T),
    garbage_collect_atoms,
    statistics(atoms, Alive),
    assertion(Alive - Before >= 3000),
    forall(between(1, 1000, I),
           ( fresh(r, I, R), fresh(g, I, G), fresh(t, I, A),
             cplogic_prob(T, R, [], P1), assertion(near(P1, 0.5)),
             cplogic_prob(T, g(G), [], P2), assertion(near(P2, 0.25)),
             vorn_cp_theory_atom_in_table(T, t(A), S), assertion(S == 2) )),
    pelm_free(T),
    garbage_collect_atoms,
    statistics(atoms, After),
    assertion(After - Before < 100).

fresh(Prefix, I, Atom) :- format(atom(Atom), '~w_~d_~d', [Prefix, I, 7919]).

% 1,000 atoms in each of rules, groundings and the atom table, made in
% frames that are gone once it returns.
fresh_atom_theory(T) :-
    pelm_new(vorn_cp_theory, T),
    vorn_cp_theory_add_fo_event(T, 0, 1),
    forall(between(1, 1000, I),
           ( fresh(r, I, R), fresh(g, I, G), fresh(t, I, A),
             vorn_cp_theory_add_event(T, e([h(R, 0.5)], [])),
             vorn_cp_theory_add_ground_event(T, ground(0, [h(g(G), 0.25)], [])),
             vorn_cp_theory_atom_table_success(T, t(A)) )).

% Calls from several threads at once are taken one at a time.
test(threads) :-
    alarm_theory(Shared),
    findall(Id, ( between(1, 4, _), thread_create(thread_work(Shared), Id, []) ), Ids),
    forall(member(Id, Ids), assertion(thread_join(Id, true))).

thread_work(Shared) :-
    forall(between(1, 25, _),
           ( alarm_theory(Own),
             vorn_cp_theory_query_silent(Own, calls(john), [], P1),
             cplogic_prob(Shared, burglary, [e(alarm, 1)], P2),
             near(P1, 0.1721), near(P2, 0.0908/0.1628),
             pelm_free(Own) )).

:- end_tests(lifecycle).
