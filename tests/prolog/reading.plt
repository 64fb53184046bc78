% Reading program files: every file problem and program error named with its
% cause and place, the reading mode decided by directives, the clause checks,
% safe mode, and a long program read in a small stack.
:- use_module('../../prolog/cplogic_read').
:- use_module(test_support).
:- use_module(library(yall)).

% Terms-and-lines of a file, or the error reading it raised.
read_all(File, Result) :-
    retractall(seen(_, _)),
    catch(( read_program(File, [T, _:L]>>assertz(seen(T, L)), []),
            findall(T-L, seen(T, L), Result) ),
          error(E, C), Result = error(E, C)).

:- dynamic seen/2.

% The error, as print_message/2 shows it, names File (and Line, when given).
message_names(Error, File, Line) :-
    message_text(Error, Text),
    (   var(Line) -> At = File ; format(string(At), "~w:~w:", [File, Line]) ),
    sub_string(Text, _, _, _, At).

:- begin_tests(reading_files).

% file_case(Name, Contents, ErrorFormal, Line): what each file raises.
file_case(missing, none, existence_error(source_sink, _), _).
file_case('dir', directory, cplogic_error(directory, _), _).
file_case('fifo', fifo, cplogic_error(not_regular_file, _), _).
file_case('nul.pl', "a:0.5.\nb\0\c:0.3.\n", cplogic_error(not_text(nul_byte), _), 2).
file_case('latin1.pl', "a:0.5.\n% caf\xe9\\nb:0.2.\n",
          cplogic_error(not_text(invalid_utf8), _), 2).
file_case('binary.pl', [0x7f, 0'E, 0'L, 0'F, 2, 1, 1, 0, 0, 0, 3, 0, 0'>, 0'\n],
          cplogic_error(not_text(_), _), 1).
file_case('comment_first.pl', "% a program\na:0.5.\nb :- ( .\n", syntax_error(_), 3).
file_case('saved_bad.pl', "% theory\n(p) a:0.5 :- true.\n(p) hello world:0.5 :- true.\n",
          syntax_error(_), 3).

make_case(Name, none, Path) :- absolute_file_name(Name, Path).
make_case(Name, directory, Path) :- make_directory(Name), absolute_file_name(Name, Path).
make_case(Name, fifo, Path) :-
    process_create(path(mkfifo), [Name], []), absolute_file_name(Name, Path).
make_case(Name, Text, Path) :- \+ atom(Text), file_with(Name, Text, Path).

% Nothing is printed on the way, not even the bad bytes.
test(every_file_problem_named, [true(Err == "")]) :-
    in_temp_dir(capture_stderr(
        forall(file_case(Name, Contents, Formal, Line),
               ( make_case(Name, Contents, Path),
                 call_with_time_limit(10, read_all(Path, Result)),  % a FIFO blocks
                 assertion(Result = error(Formal, _)),
                 assertion(message_names(Result, Path, Line)),
                 % program_mode/2 opens files the same way
                 (   Formal = syntax_error(_)
                 ->  true
                 ;   catch(program_mode(Path, _), error(F2, _), true),
                     assertion(F2 = Formal)
                 ) )), Err)).

:- end_tests(reading_files).

:- begin_tests(reading_clauses).

test(clauses_with_their_lines) :-
    in_temp_dir(( file_with('p.pl', ":- dynamic q/1.\n\n% note\na:0.5 ;\n  b:0.2.\nc :- a.\n", F1),
                  read_all(F1, R1),
                  file_with('t.cpl', "% theory\n(p) a:0.5 ; b:0.3 :- c.\n ; d:0.2 :-  e, \\+f.\n", F2),
                  read_all(F2, R2) )),
    assertion(R1 == [(:- dynamic q/1)-1, (a:0.5 ; b:0.2)-4, (c :- a)-6]),
    assertion(R2 == [(a:0.5 ; b:0.3 :- c)-2, (d:0.2 :- e, \+ f)-3]).      % a saved theory

test(variable_names_and_encoding) :-
    retractall(seen(_, _)),
    in_temp_dir(( file_with('p.pl', ":- encoding(iso_latin_1).\np(X, 'caf\xe9\') :- q(X).\n", F),
                  read_program(F, [T, _, Ns]>>assertz(seen(T, Ns)), [variable_names(true)]) )),
    seen((C :- B), Ns),
    assertion((C :- B)-Ns =@= (p(V, 'caf\xe9\') :- q(V))-['X'=V]).

test(too_deep_to_read) :-
    in_temp_dir(( format(string(Text), "a.~n~nb(~*c~*c).~n", [200000, 0'[, 200000, 0']]),
                  file_with('deep.pl', Text, F),
                  read_all(F, R) )),
    assertion(R = error(cplogic_error(unreadable_clause(resource_error(_)), F:3), _)).

% Clause by clause: a long program reads in a stack that could not hold its
% clauses (300,000 of at least 60 bytes each).
test(long_program_in_small_stack) :-
    in_temp_dir(( setup_call_cleanup(open('long.pl', write, S),
                                     forall(between(1, 300000, I),
                                            format(S, "p(c~d, d~d):0.5.~n", [I, I])),
                                     close(S)),
                  absolute_file_name('long.pl', F),
                  thread_create(( read_program(F, [_, _]>>flag(read_count, N, N + 1), []),
                                  flag(read_count, 300000, 0) ),
                                Id, [stack_limit(8 000 000)]),
                  thread_join(Id, Status) )),
    assertion(Status == true).

:- end_tests(reading_clauses).

:- begin_tests(reading_modes).

% The mode comes from directives only; blocks that are not one are named
% where they go wrong.
test(modes_and_blocks) :-
    in_temp_dir(forall(member(Text-Expected,
                              [ "% uses begin_lpad\na:0.5.\n"-lpad,
                                "'begin_lpad'.\nb:0.5 :- 'end_lpad'.\n"-lpad,
                                "h.\n:- begin_lpad.\na:0.5.\n:- end_lpad.\n"-prolog,
                                "h.\n:- cplogic:begin_lpad.\na:0.5.\n:- cplogic:end_lpad.\n"-prolog,
                                "h :- .\n:- begin_lpad.\na:0.5.\n:- end_lpad.\n"-prolog,
                                ":- begin_lpad.\na.\n:- end_lpad.\n:- begin_lpad.\nb.\n:- end_lpad.\n"-(second_block-4),
                                ":- begin_lpad.\n:- begin_lpad.\n"-(second_block-2),
                                "a.\n:- begin_lpad.\nb.\n"-(unclosed_block-2),
                                "a.\n:- end_lpad.\n"-(unopened_block-2)
                              ]),
                       ( file_with('p.pl', Text, F),
                         catch(program_mode(F, M), E, true),
                         (   atom(Expected)
                         ->  assertion(M == Expected)
                         ;   Expected = Culprit-Line,
                             assertion(E = error(cplogic_error(Culprit, F:Line), _)),
                             assertion(message_names(E, F, Line))
                         ) ))).

:- end_tests(reading_modes).

:- begin_tests(clause_checks).

check_text(Text, Error) :-
    term_string(T, Text, [variable_names(Ns)]),
    catch(check_clause(T, 'p.pl':7, Ns), error(Error, _), true).

% Text-Culprit, a variable for an accepted clause.
test(clauses_checked) :-
    forall(member(Text-Culprit,
                  [ "a:0.5 :- X"-variable_body_goal(_), "a :- b, X, c"-variable_body_goal(_),
                    "a :- \\+ X"-variable_body_goal(_), "a:nan"-nonfinite_probability(_, nan),
                    "a:0.5 ; b:inf"-nonfinite_probability(_, infinite),
                    "a:inf-inf :- c"-nonfinite_probability(_, nan),
                    "'::'(-inf, a)"-nonfinite_probability(_, infinite),
                    "a:0.5 :- b, \\+ c, X = 1, X > 0"-_, "a"-_, "a:1/3 ; b:x"-_,
                    "'::'(0.5, a) :- b"-_, "a :- call(G)"-_ ]),
           ( check_text(Text, E),
             (   var(Culprit) -> assertion(var(E)) ; assertion(E = cplogic_error(Culprit, 'p.pl':7)) ) )),
    check_text("a :- \\+ X", E),
    message_text(error(E, _), Message),
    assertion(sub_string(Message, 0, _, _, "p.pl:7: body goal X is")).

:- end_tests(clause_checks).

safe_helper(X) :- atom_length(X, _).
unsafe_helper(X) :- shell(X).

% Consults File into module M with the library; the errors printed while it
% loads are the facts refused/1.
consult_refusing(M, File, Options) :-
    module_property(cplogic, file(Lib)),
    M:use_module(Lib),
    retractall(refused(_)),
    setup_call_cleanup(asserta((user:message_hook(E, error, _) :- assertz(refused(E))), Ref),
                       load_files(M:File, Options),
                       erase(Ref)).

:- dynamic refused/1.

:- begin_tests(safe_mode).

test(goals_by_sandbox) :-
    forall(member(G-Safe, [ safe_helper(a)-true, member(_, [a])-true, format("~w", [a])-true,
                            no_such_predicate(1)-true, shell(ls)-false,
                            unsafe_helper(ls)-false, (safe_helper(a), unsafe_helper(b))-false,
                            call(_)-false, open(f, write, _)-false ]),
           ( catch(check_safe_body_goal(G, 'p.pl':3), E, true),
             (   Safe == true
             ->  assertion(var(E))
             ;   assertion(E = error(cplogic_error(unsafe_goal(_, _), 'p.pl':3), _))
             ) )).

% A file with blocks loads sandboxed: its own directives are checked, the
% block directives and the library are allowed.
test(sandboxed_block_file) :-
    module_property(cplogic, file(Lib)),
    in_temp_dir(( format(string(Text),
                         ":- use_module('~w').~n:- shell('touch ran').~nh(bob).~n:- begin_lpad.~nf(X):0.4 :- h(X).~n:- end_lpad.~n",
                         [Lib]),
                  file_with('p.pl', Text, F),
                  consult_refusing(safe_m, F, [sandboxed(true)]),
                  assertion(\+ exists_file(ran)) )),
    assertion(refused(error(permission_error(call, sandboxed, _), _))),
    prob(safe_m:f(bob), P),
    assertion(near(P, 0.4)).

% lpad_load/3 in safe mode. (lpad_load/1's errors name their file and line:
% fuzz.plt.)
test(safe_mode_refuses_shell) :-
    in_temp_dir(( file_with('sh.pl', "a:0.5.\nb:0.5 :- a, shell(Cmd).\n", F),
                  catch(lpad_load(F, safe_load, [safe(true)]), E, true) )),
    assertion(message_names(E, F, 2)),
    message_text(E, Text),
    assertion(sub_string(Text, _, _, _, "body goal shell(Cmd) is refused in safe mode: it calls shell/2")),
    assertion(\+ catch(prob(safe_load:a, _), _, fail)).

% Consulted: the second block is refused where it starts.
test(second_block_in_consulted_file) :-
    in_temp_dir(( file_with('two.pl', ":- begin_lpad.\na:0.5.\n:- end_lpad.\n:- begin_lpad.\nb:0.5.\n:- end_lpad.\n", F),
                  consult_refusing(two_m, F, []) )),
    assertion(refused(error(cplogic_error(second_block, F:4), _))),
    prob(two_m:a, P),
    assertion(near(P, 0.5)).

:- end_tests(safe_mode).
