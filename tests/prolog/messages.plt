% Bad object IDs and bad arguments: each raises the ISO error that names the
% argument, prints nothing, and leaves the theory as it was.
:- use_module(test_support).

% Each predicate with arguments 2.. that are valid on their own.
call_with_id(Id, Goal) :-
    member(Goal0, [ vorn_cp_theory_set_settings(_, 1, 0, cf, cst, x), vorn_cp_theory_compile(_),
                    vorn_cp_theory_query_silent(_, a, [], _), vorn_cp_theory_query(_, a, [], _),
                    vorn_cp_theory_print_graphviz(_, ''), vorn_cp_theory_save(_, '/dev/null'),
                    vorn_cp_theory_add_ground_event(_, ground(0, [], [])),
                    vorn_cp_theory_add_event(_, e([], [])), vorn_cp_theory_add_fo_event(_, 0, 0),
                    vorn_cp_theory_atom_table_success(_, a), vorn_cp_theory_atom_in_table(_, a, _),
                    cplogic_prob(_, a, [], _), cplogic_hugin_net(_, a, ''),
                    pelm_free(_), pelm_print(_), pelm_copy(_, _) ]),
    Goal0 =.. [Name, _|Args],
    Goal =.. [Name, Id|Args].

:- begin_tests(object_ids).

% Only handles name objects: integers are not IDs, and a freed object stays
% freed (no double free, no use after free, no copy reviving it).
test(every_predicate_checks_its_object) :-
    pelm_new(vorn_cp_theory, Freed),
    pelm_free(Freed),
    object_index(Freed, Index),
    pelm_new(vorn_cp_theory, Live),
    forall(call_with_id(Id, Goal),
           forall(member(Id-Formal, [ foo-type_error(_, foo), 1.0-type_error(_, 1.0),
                                      0-type_error(_, 0), Index-type_error(_, Index),
                                      Freed-existence_error(vorn_cp_theory, Freed),
                                      _-instantiation_error ]),
                  ( Goal = pelm_copy(_, Source), Source \== Id -> true
                  ; Goal = pelm_copy(Id, Source) -> Source = Live, raises(Goal, Formal)
                  ; raises(Goal, Formal)
                  ))),
    raises(pelm_copy(Live, Freed), existence_error(vorn_cp_theory, Freed)),
    cplogic_prob(Live, a, [], P),
    assertion(P =:= 0.0).
test(real_stderr, [true(Err == "")]) :-
    run_swipl("catch(vorn_cp_theory_compile(0), error(type_error(vorn_cp_theory, 0), _), true)",
              0, "", Err).

:- end_tests(object_ids).

:- begin_tests(arguments).

test(errors_name_the_argument) :-
    Cyclic = f(Cyclic),
    in_temp_dir(
        ( alarm_theory(T),
          tmp_file(saved, Saved),
          vorn_cp_theory_save(T, Saved),
          forall(member(Goal-Formal,
                 [ vorn_cp_theory_set_settings(T, 1.5, 0, cf, cst, x)-type_error(integer, 1.5),
                   vorn_cp_theory_set_settings(T, 1, "x", cf, cst, x)-type_error(integer, "x"),
                   vorn_cp_theory_set_settings(T, 1, 0, f(a), cst, x)-type_error(atom, f(a)),
                   vorn_cp_theory_set_settings(T, 1, 0, cf, cst, _)-instantiation_error,
                   vorn_cp_theory_add_fo_event(T, a, 1)-type_error(integer, a),
                   vorn_cp_theory_add_fo_event(T, -1, 1)-domain_error(fo_event, -1),
                   vorn_cp_theory_add_fo_event(T, 0, -2)-domain_error(_, -2),
                   vorn_cp_theory_print_graphviz(T, "name")-type_error(atom, "name"),
                   vorn_cp_theory_save(T, 42)-type_error(atom, 42),
                   vorn_cp_theory_save(T, '/nonexistent/dir/x')-existence_error(_, '/nonexistent/dir/x'),
                   vorn_cp_theory_print_graphviz(T, '/nonexistent/dir/x')-existence_error(_, '/nonexistent/dir/x'),
                   vorn_cp_theory_save(T, '/')-permission_error(_, _, '/'),
                   vorn_cp_theory_save(T, '/dev/full')-io_error(write, '/dev/full'),
                   vorn_cp_theory_print_graphviz(T, '/dev/full')-io_error(write, '/dev/full'),
                   cplogic_hugin_net(T, alarm, '/dev/full')-io_error(write, '/dev/full'),
                   cplogic_hugin_net(T, alarm, '/nonexistent/dir/x')-existence_error(_, '/nonexistent/dir/x'),
                   cplogic_hugin_net(T, nothing, 'x.net')-existence_error(_, nothing),
                   vorn_cp_theory_add_event(T, foo)-type_error(event, foo),
                   vorn_cp_theory_add_event(T, e([h(a, 0.5)]))-type_error(event, _),
                   vorn_cp_theory_add_event(T, e([h(a)], []))-type_error(head_element, h(a)),
                   vorn_cp_theory_add_event(T, e(x, []))-type_error(list, x),
                   vorn_cp_theory_add_event(T, e([h(a, 0.5)|_], []))-instantiation_error,
                   vorn_cp_theory_add_event(T, e([h(b, -0.5)], []))-domain_error(probability, -0.5),
                   vorn_cp_theory_add_event(T, e([h(b, 1.5NaN)], []))-domain_error(probability, _),
                   vorn_cp_theory_add_event(T, e([h(b, inf)], []))-type_error(probability, inf),
                   vorn_cp_theory_add_event(T, e([h(b, 1.0Inf)], []))-domain_error(probability, 1.0Inf),
                   vorn_cp_theory_add_event(T, e([h(b, 2)], []))-domain_error(probability, 2),
                   vorn_cp_theory_add_event(T, e([h(b, "0.5")], []))-type_error(probability, "0.5"),
                   vorn_cp_theory_add_event(T, e([h(b, 0.7), h(c, 0.6)], []))-domain_error(head_probability_sum, _),
                   vorn_cp_theory_add_event(T, e([h(f(_), 0.5)], []))-instantiation_error,
                   vorn_cp_theory_add_event(T, e([h(b, 0.5)], [\+ _]))-instantiation_error,
                   vorn_cp_theory_add_event(T, e([h(b, 0.5)], [Cyclic]))-type_error(acyclic_term, _),
                   vorn_cp_theory_add_event(T, e([h(T, 0.5)], []))-type_error(cplogic_atom, T),
                   vorn_cp_theory_add_ground_event(T, ground(x, [], []))-type_error(integer, x),
                   vorn_cp_theory_add_ground_event(T, ground(7, [], []))-existence_error(fo_event, 7),
                   vorn_cp_theory_query_silent(T, 1.5, foo, _)-type_error(list, foo),
                   vorn_cp_theory_query(T, a, [e(alarm, 1)|_], _)-instantiation_error,
                   cplogic_prob(T, a, [a], _)-type_error(evidence_element, a),
                   cplogic_prob(T, a, [e(a)], _)-type_error(evidence_element, e(a)),
                   cplogic_prob(T, a, [e(alarm, x)], _)-domain_error(evidence_value, x),
                   cplogic_prob(T, a, [e(alarm, 2)], _)-domain_error(evidence_value, 2),
                   cplogic_prob(T, a, [e(_, 1)], _)-instantiation_error,
                   cplogic_prob(T, Cyclic, [], _)-type_error(acyclic_term, _),
                   vorn_cp_theory_atom_in_table(T, _, _)-instantiation_error,
                   pelm_new(vorn_cp_theory2, _)-existence_error(pelm_type, vorn_cp_theory2),
                   pelm_new("vorn_cp_theory", _)-type_error(atom, "vorn_cp_theory")
                 ]),
                 raises(Goal, Formal)),
          % a file error's message is the system's reason
          catch(vorn_cp_theory_save(T, '/'), error(_, context(_, Reason)), true),
          assertion(string(Reason)),
          assertion(\+ exists_file('[]')),
          assertion(\+ exists_file('x.net')),
          tmp_file(saved, Saved2),
          vorn_cp_theory_save(T, Saved2),
          read_file_to_string(Saved, Before, []),
          read_file_to_string(Saved2, After, []),
          split_string(Before, "\n", "", [_|Rules]),
          split_string(After, "\n", "", [_|Rules]),
          vorn_cp_theory_add_fo_event(T, 0, 1),
          vorn_cp_theory_add_ground_event(T, ground(0, [h(x, 0.5)], [])),
          raises(vorn_cp_theory_add_fo_event(T, 0, 2), permission_error(modify, fo_event, 0)),
          raises(vorn_cp_theory_add_ground_event(T, g(0, [h(b, 0.5)], [c])),
                 domain_error(fo_event_grounding, _)),
          cplogic_prob(T, alarm, [], P),
          assertion(near(P, 0.1628))
        )).

% A theory whose rules depend on themselves, and evidence below the doubles
% (2^-1101), are refused when asked, with the error naming why.
test(unanswerable_theories) :-
    pelm_new(vorn_cp_theory, C),
    add_events(C, [e([h(a, 0.5)], [b]), e([h(b, 0.5)], [a])]),
    catch(cplogic_prob(C, a, [], _), E, true),
    assertion(E = error(cplogic_error(cycle(_), theory), _)),
    message_text(E, Text),
    assertion(sub_string(Text, 0, _, _, "the theory's rules form a cycle through")),
    pelm_new(vorn_cp_theory, U),
    add_events(U, [e([h(a(0), 0.5)], [])]),
    forall(between(1, 1100, I), ( J is I - 1, add_events(U, [e([h(a(I), 0.5)], [a(J)])]) )),
    raises(cplogic_prob(U, a(0), [e(a(1100), 1)], _), evaluation_error(underflow)).

:- end_tests(arguments).
