% Invalid object IDs and wrong argument types: what reaches standard error.
:- use_module('../../prolog/cplogic').
:- use_module(test_support).
:- use_module(library(plunit)).
:- use_module(library(lists)).

% Each predicate with arguments 2.. that are valid on their own.
call_with_id(Id, Goal) :-
    member(Goal0, [ vorn_cp_theory_set_settings(_, 1, 0, cf, cst, x),
                    vorn_cp_theory_query_silent(_, a, [], _),
                    vorn_cp_theory_print_graphviz(_, ''),
                    vorn_cp_theory_query(_, a, [], _),
                    vorn_cp_theory_add_ground_event(_, ground(0, [], [])),
                    vorn_cp_theory_compile(_),
                    vorn_cp_theory_atom_table_success(_, a),
                    vorn_cp_theory_save(_, '/dev/null'),
                    vorn_cp_theory_add_event(_, e([], [])),
                    vorn_cp_theory_add_fo_event(_, 0, 0),
                    vorn_cp_theory_atom_in_table(_, a, _)
                  ]),
    Goal0 =.. [Name, _|Args],
    Goal =.. [Name, Id|Args].

predicate_message(Goal, Message) :-
    functor(Goal, Name, Arity),
    format(string(Message), "~w/~w - arg 1: invalid c object ID \n", [Name, Arity]).

:- begin_tests(object_ids).

test(empty_heap_raw_index,
     [true(Err == "Invalid cheap id: 0\nHeapGetFromTerm returns 0\nvorn_cp_theory_compile/1 - arg 1: invalid c object ID \n")]) :-
    run_swipl("( vorn_cp_theory_compile(0) -> halt(3) ; true )", Status, Out, Err),
    assertion(Status-Out == 0-"").
test(every_predicate_rejects_bad_ids) :-
    pelm_new(vorn_cp_theory, Freed),
    pelm_free(Freed),
    object_index(Freed, Index),
    Unused is Index + 1000,
    forall(call_with_id(Id, Goal),
           forall(member(Id-Lookup, [ foo-"Illegal prolog id: -1\nHeapGetFromTerm returns 0\n",
                                      "s"-"Illegal prolog id: -1\nHeapGetFromTerm returns 0\n",
                                      1.0-"Illegal prolog id: -1\nHeapGetFromTerm returns 0\n",
                                      -3-"Invalid cheap id: -3\nHeapGetFromTerm returns 0\n",
                                      Unused-"",
                                      Freed-"",
                                      Index-""
                                    ]),
                  ( capture_output(\+ Goal, Out, Err),
                    predicate_message(Goal, Message),
                    (   Id == Unused
                    ->  format(string(Expected),
                               "Invalid cheap id: ~w\nHeapGetFromTerm returns 0\n~w",
                               [Unused, Message])
                    ;   string_concat(Lookup, Message, Expected)
                    ),
                    assertion(Err == Expected),
                    assertion(Out == "")
                  ))).
test(real_stderr, [true(Err == "Illegal prolog id: -1\nHeapGetFromTerm returns 0\nvorn_cp_theory_query/4 - arg 1: invalid c object ID \n")]) :-
    run_swipl("( vorn_cp_theory_query(f(x), a, [], _) -> halt(3) ; true )", 0, "", Err).

:- end_tests(object_ids).

:- begin_tests(argument_types).

test(integer_and_atom_arguments) :-
    in_temp_dir(
        ( alarm_theory(T),
          capture_output(vorn_cp_theory_set_settings(T, 1.5, "x", 3, f(a), _), Out1, Err1),
          assertion(Out1-Err1 == ""-"Term has invalid type!\nTerm has invalid type!\nTerm has invalid type!\nTerm has invalid type!\nTerm has invalid type!\n"),
          capture_output(vorn_cp_theory_add_fo_event(T, a, 1), Out2, Err2),
          assertion(Out2-Err2 == ""-"Term has invalid type!\nInvalid first-order event -1 with 1 terms\n"),
          % A file name that is not an atom leaves the empty-list atom's name.
          capture_output(vorn_cp_theory_print_graphviz(T, "name"), Out3, Err3),
          assertion(Out3-Err3 == ""-"Term has invalid type!\n"),
          assertion(exists_file('[]')),
          vorn_cp_theory_query_silent(T, alarm, [], P),
          assertion(near(P, 0.1628))
        )).
test(event_shapes) :-
    pelm_new(vorn_cp_theory, T),
    forall(member(Event-Expected,
                  [ foo-"Term has invalid type!\n",
                    e([h(a, 0.5)])-"Not that many arguments in functor\n",
                    e([h(a)], [])-"Not that many arguments in functor\n",
                    e([h(a, 1)], [])-"Term has invalid type!\n",
                    e([a], [])-"Term has invalid type!\n",
                    e(x, [])-"Term has invalid type!\n",
                    e([h(a, 0.5)], [3])-"Term is not an atom nor a structure\n",
                    e([h(f(_), 0.5)], [])-"VornCPTheory::atomFromTermBuildKey(): illegal term\n",
                    e([h(f(1.5), 0.5)], [])-"VornCPTheory::atomFromTermBuildKey(): illegal term\n",
                    e([h('C12', 0.5)], [])-"VornCPTheory::atomFromTerm(): C12 is the name of an atom of the theory itself\n",
                    e([h(a, 0.5)], [f("s")])-"VornCPTheory::atomFromTermBuildKey(): illegal term\n"
                  ]),
           ( capture_output(vorn_cp_theory_add_event(T, Event), Out, Err),
             assertion(Out-Err == ""-Expected)
           )).
test(evidence_shapes) :-
    alarm_theory(T),
    forall(member(Evidence-Expected,
                  [ [a]-"Term has invalid type!\n",
                    [e(a)]-"Not that many arguments in functor\n",
                    [e(alarm, x)]-"Term has invalid type!\n",
                    [e(_, 1)]-"VornCPTheory::atomFromTermBuildKey(): illegal term\n",
                    foo-"",
                    [e(alarm, 1)|_]-""
                  ]),
           ( capture_output(vorn_cp_theory_query_silent(T, burglary, Evidence, _), _, Err),
             assertion(Err == Expected)
           )).
test(save_with_non_atom, [true(Message == 'PELM_atom:term is not an atom')]) :-
    pelm_new(vorn_cp_theory, T),
    catch(vorn_cp_theory_save(T, 42), error(type_error(atom, 42), context(_, Message)), true).

:- end_tests(argument_types).
