:- module(test_support,
          [ alarm_theory/1,      % -Theory
            add_events/2,        % +Theory, +Events
            near/2,              % +Value, +Expected
            capture_stderr/2,    % :Goal, -Text
            capture_output/3,    % :Goal, -Out, -Err
            object_index/2,      % +Object, -Index
            run_swipl/4,         % +GoalText, -Status, -Out, -Err
            in_temp_dir/1        % :Goal
          ]).

:- use_module('../../prolog/cplogic').
:- use_module(library(process)).
:- use_module(library(readutil)).
:- use_module(library(memfile)).

:- meta_predicate capture_stderr(0, -), capture_output(0, -, -), in_temp_dir(0).

% Burglary or earthquake cause the alarm; John calls mostly when it rings.
alarm_theory(T) :-
    pelm_new(vorn_cp_theory, T),
    add_events(T, [ e([h(burglary, 0.1)], []),
                    e([h(earthquake, 0.2)], []),
                    e([h(alarm, 0.9)], [burglary]),
                    e([h(alarm, 0.4)], [earthquake]),
                    e([h(calls(john), 0.8)], [alarm]),
                    e([h(calls(john), 0.05)], [\+ alarm])
                  ]).

add_events(T, Events) :-
    forall(member(E, Events), vorn_cp_theory_add_event(T, E)).

near(Value, Expected) :-
    abs(Value - Expected) =< 1.0e-9.

% Text the goal writes to user_error (the goal must succeed).
capture_stderr(Goal, Text) :-
    new_memory_file(MF),
    open_memory_file(MF, write, S, [encoding(utf8)]),
    stream_property(Old, alias(user_error)),
    set_stream(S, alias(user_error)),
    call_cleanup(once(Goal),
                 ( set_stream(Old, alias(user_error)), close(S) )),
    memory_file_to_string(MF, Text).

capture_output(Goal, Out, Err) :-
    capture_stderr(with_output_to(string(Out), Goal), Err).

% The heap index inside an object handle, as written: <vorn_cp_theory>(N).
object_index(Object, Index) :-
    format(string(S), '~w', [Object]),
    split_string(S, "()", "", [_, N, _]),
    number_string(Index, N).

% Runs a fresh swipl with the module loaded; its standard streams as strings.
run_swipl(GoalText, Status, Out, Err) :-
    module_property(cplogic, file(ModuleFile)),
    format(atom(Load), "use_module('~w')", [ModuleFile]),
    process_create(path(swipl),
                   ['-q', '--on-error=status', '-g', Load, '-g', GoalText, '-t', halt],
                   [ stdout(pipe(O)), stderr(pipe(E)), process(Pid),
                     % under the sanitizers, leak reports belong to the parent
                     environment(['ASAN_OPTIONS'='detect_leaks=0:use_sigaltstack=0'])
                   ]),
    set_stream(O, encoding(utf8)),
    set_stream(E, encoding(utf8)),
    read_string(O, _, Out),
    read_string(E, _, Err),
    close(O),
    close(E),
    process_wait(Pid, exit(Status)).

in_temp_dir(Goal) :-
    tmp_file(cplogic, Dir),
    make_directory(Dir),
    working_directory(Old, Dir),
    call_cleanup(once(Goal),
                 ( working_directory(_, Old), delete_directory_and_contents(Dir) )).
