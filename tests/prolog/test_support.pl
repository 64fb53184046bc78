% Helpers shared by the plunit tests, and the reference semantics of ground
% programs that the random tests compare the library with.
:- module(test_support,
          [ alarm_theory/1,      % -Theory
            add_events/2,        % +Theory, +Events
            near/2,              % +Value, +Expected
            capture_stderr/2,    % :Goal, -Text
            capture_output/3,    % :Goal, -Out, -Err
            object_index/2,      % +Object, -Index
            run_swipl/4,         % +GoalText, -Status, -Out, -Err
            in_temp_dir/1,       % :Goal
            file_with/3,         % +Name, +Text, -Path
            load_text/2,         % +Module, +ProgramText
            raises/2,            % :Goal, ?Formal
            message_text/2,      % +Error, -Text
            reference_worlds/2,  % +GroundRules, -Worlds
            reference_probability/4 % +Worlds, +Query, +Evidence, -P
          ]).

% What every test file uses: the library and the libraries of the tests.
:- reexport(['../../prolog/cplogic', library(plunit), library(lists), library(apply),
             library(random), library(readutil), library(process), library(time),
             library(assoc), library(pairs)]).
:- use_module(library(memfile)).

:- meta_predicate capture_stderr(0, -), capture_output(0, -, -), in_temp_dir(0), raises(0, ?).

% Burglary or earthquake cause the alarm; John calls mostly when it rings.
alarm_theory(T) :-
    pelm_new(vorn_cp_theory, T),
    add_events(T, [ e([h(burglary, 0.1)], []), e([h(earthquake, 0.2)], []),
                    e([h(alarm, 0.9)], [burglary]), e([h(alarm, 0.4)], [earthquake]),
                    e([h(calls(john), 0.8)], [alarm]), e([h(calls(john), 0.05)], [\+ alarm]) ]).

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
    set_stream(O, encoding(utf8)), set_stream(E, encoding(utf8)),
    read_string(O, _, Out), read_string(E, _, Err),
    close(O), close(E),
    process_wait(Pid, exit(Status)).

in_temp_dir(Goal) :-
    tmp_file(cplogic, Dir),
    make_directory(Dir),
    working_directory(Old, Dir),
    call_cleanup(once(Goal),
                 ( working_directory(_, Old), delete_directory_and_contents(Dir) )).

% The file Name in the current directory, holding Text (a string, or codes
% for any bytes).
file_with(Name, Text, Path) :-
    setup_call_cleanup(open(Name, write, S, [type(binary)]),
                       format(S, "~s", [Text]),
                       close(S)),
    absolute_file_name(Name, Path).

% Text written to a temporary file and loaded as the program of module M.
load_text(M, Text) :-
    tmp_file_stream(text, File, S),
    write(S, Text), close(S),
    M:lpad_load(File).

% Goal raises error(F, _) with F an instance of Formal; it prints nothing
% before it does.
raises(Goal, Formal) :-
    catch(( capture_output(Goal, Out, Err), Result = succeeded(Out, Err) ),
          error(F, _), Result = F),
    assertion(subsumes_term(Formal, Result)).

% The error as print_message/2 shows it.
message_text(Error, Text) :-
    '$messages':translate_message(Error, Lines, []),
    with_output_to(string(Text), print_message_lines(current_output, '', Lines)).

% ---- Reference semantics ----------------------------------------------------
% A ground program is a list of rule(Level, Heads, Body): Heads a list of
% Atom-Probability, Body a list of Atom and \+ Atom. Every rule picks one of
% its head atoms, or none, on its own; a world is what the picks make true.
% Levels are settled in increasing order: a body refers to atoms headed at
% lower levels, or positively to atoms of its own level, so a level's atoms
% are the least model of its picks over the levels below. A rule whose body
% fails on a settled atom is not branched on: its picks would sum to one.

% reference_worlds(+Rules, -Worlds): Worlds = [TrueAtoms-Weight, ...], one
% element per set of true atoms.
reference_worlds(Rules, Worlds) :-
    findall(L, member(rule(L, _, _), Rules), Levels0),
    sort(Levels0, Levels),
    findall(A-L, ( member(rule(L, Heads, _), Rules), member(A-_, Heads) ), Headed0),
    sort(0, @>=, Headed0, Headed1),         % each atom's highest level first
    empty_assoc(Empty),
    foldl([A-L, T0, T]>>( get_assoc(A, T0, _) -> T = T0 ; put_assoc(A, T0, L, T) ),
          Headed1, Empty, Top),
    foldl(settle(Rules, Top), Levels, [[]-1.0], Worlds).

settle(Rules, Top, L, Worlds0, Worlds) :-
    findall(M-W, ( member(M0-W0, Worlds0),
                   include(may_fire(L, Top, M0), Rules, Open),
                   pick(Open, W0, W, Picked),
                   least_model(Picked, M0, M) ),
            Worlds1),
    keysort(Worlds1, Worlds2),
    group_pairs_by_key(Worlds2, Grouped),
    maplist([M-Ws, M-W]>>sum_list(Ws, W), Grouped, Worlds).

may_fire(L, Top, M, rule(L, _, Body)) :-
    \+ ( member(Lit, Body), settled(Lit, L, Top), \+ literal_holds(Lit, M) ).

settled(Lit, L, Top) :-
    (   Lit = (\+ A) -> true ; A = Lit ),
    (   get_assoc(A, Top, TopLevel) -> TopLevel < L ; true ).

pick([], W, W, []).
pick([rule(_, Heads, Body)|Rules], W0, W, Picked) :-
    foldl([_-P, S0, S]>>(S is S0 + P), Heads, 0.0, Sum),
    (   W1 is W0 * (1 - Sum), Picked = Picked1
    ;   member(A-P, Heads), W1 is W0 * P, Picked = [A-Body|Picked1]
    ),
    W1 > 0,
    pick(Rules, W1, W, Picked1).

least_model(Picked, M0, M) :-
    findall(A, ( member(A-Body, Picked), \+ memberchk(A, M0),
                 forall(member(L, Body), literal_holds(L, M0)) ), New),
    (   New == []
    ->  M = M0
    ;   append(New, M0, M1), sort(M1, M2), least_model(Picked, M2, M)
    ).

literal_holds(\+ A, M) :- !, \+ memberchk(A, M).
literal_holds(A, M) :- memberchk(A, M).

% P(Query | Evidence) over the worlds; fails when the evidence has
% probability 0. Query and the evidence's elements are goals: conjunctions,
% disjunctions, \+ and atoms, whose variables mean "some instance".
reference_probability(Worlds, Query, Evidence, P) :-
    foldl(weigh(Query, Evidence), Worlds, 0.0-0.0, QE-E),
    E > 0,
    P is QE / E.

weigh(Query, Evidence, M-W, QE0-E0, QE-E) :-
    (   forall(member(G, Evidence), goal_holds(G, M))
    ->  E is E0 + W,
        (   goal_holds(Query, M) -> QE is QE0 + W ; QE = QE0 )
    ;   QE = QE0, E = E0
    ).

goal_holds((A, B), M) :- !, goal_holds(A, M), goal_holds(B, M).
goal_holds((A ; B), M) :- !, ( goal_holds(A, M) -> true ; goal_holds(B, M) ).
goal_holds(\+ A, M) :- !, \+ goal_holds(A, M).
goal_holds(A, M) :- \+ \+ member(A, M).
