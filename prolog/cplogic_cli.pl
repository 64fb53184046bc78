/*  The cplogic command: answers queries on an LPAD program from the shell.

    Run through bin/cplogic; `cplogic --help` explains the options.
    Exit status: 0 success, 1 program error, 2 bad usage.
*/

:- module(cplogic_cli, [cli_main/0]).

:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(readutil)).
:- use_module(library(process)).
:- use_module(cplogic).
:- use_module(cplogic_read).

:- initialization(cli_main, main).

usage("Usage: cplogic PROGRAM [QUERY...] [--given GOAL]... [--given '\\+GOAL']...
               [--method cf|tables|cpts|cfme] [--elimination cst|absorption]
               [--max-table-entries N] [--progress] [--safe]
               [--dot FILE] [--png FILE] [--save FILE] [--hugin FILE]

Loads the LPAD program in the file PROGRAM and prints, for every QUERY, one
line with the query, the evidence and the probability of the query given the
evidence, to 6 significant digits. A QUERY is a ground atom or any goal over
program atoms; a QUERY with variables gives a line for each of its instances
with a probability above 0. Without a QUERY, the program's own query/1 facts
are answered, one line 'Goal: Probability' per ground answer, in the order of
the program. Evidence is the program's evidence/1,2 facts and the --given
options.

  --given GOAL        evidence: GOAL is observed true; '\\+GOAL' observed false
  --method M          how rules become factors: cf (default), tables, cpts, cfme
  --elimination E     cst (default, complete confactor sets) or absorption
  --max-table-entries N  the largest table a query may build (default
                      16777216; inf for no bound)
  --progress          report on standard error when grounding or a query
                      takes long
  --safe              for a program from elsewhere: refuse body goals (and
                      directives) that could do harm, such as shell/1 or
                      writing files; only goals library(sandbox) accepts run
  --dot FILE          write the ground theory the queries needed as Graphviz text
  --png FILE          render that graph as a PNG picture (needs Graphviz's dot)
  --save FILE         save the ground theory as CP-logic rules (lpad_load/1 reads it)
  --hugin FILE        write the ground theory as a Hugin network, for the first
                      query (a ground atom)
  --help              show this text

PROGRAM holds clauses in either notation, mixed freely:
    sneezing(X):0.7 ; null:0.3 :- flu(X).      0.6::sneezing(X) :- hay_fever(X).
    flu(bob):0.4.                              0.2::hay_fever(bob).
    query(sneezing(bob)).                      evidence(flu(bob), false).
either alone or between ':- begin_lpad.' and ':- end_lpad.' beside ordinary
Prolog helper predicates. Example:

    cplogic examples/lpad/sneezing.pl 'flu(bob)' --given 'sneezing(bob)'
    P(flu(bob) | sneezing(bob)) = 0.803493

Exit status: 0 on success, 1 on an error in the program, 2 on bad usage.
").

cli_main :-
    current_prolog_flag(argv, Argv),
    catch(run(Argv), E, fail_with(E)),
    halt(0).

fail_with(usage(Message)) :-
    !,
    usage_text(Message, Text),
    format(user_error, "cplogic: ~w~nTry 'cplogic --help' for more information.~n", [Text]),
    halt(2).
fail_with(program(Message)) :-
    !,
    usage_text(Message, Text),
    format(user_error, "cplogic: ~w~n", [Text]),
    halt(1).
fail_with(E) :-
    message_line(E, Line),
    format(user_error, "cplogic: ~w~n", [Line]),
    halt(1).

% One line for any error term, without a stack trace.
message_line(E, Line) :-
    catch(message_to_codes(E, Codes), _, fail),
    !,
    atom_codes(Line0, Codes),
    split_string(Line0, "\n", " \t", Parts),
    exclude(==(""), Parts, NonEmpty),
    atomic_list_concat(NonEmpty, ' ', Line).
message_line(E, Line) :-
    format(atom(Line), "~q", [E]).

message_to_codes(E, Codes) :-
    '$messages':translate_message(E, Lines0, []),
    maplist(plain_line_element, Lines0, Lines),
    with_output_to(codes(Codes), print_message_lines(current_output, '', Lines)).

% Source locations come as url(File:Line:Column) elements.
plain_line_element(url(Location), '~w'-[Text]) :-
    !,
    (   Location = File:Line:Col -> format(atom(Text), "~w:~w:~w", [File, Line, Col])
    ;   Location = File:Line -> format(atom(Text), "~w:~w", [File, Line])
    ;   format(atom(Text), "~w", [Location])
    ).
plain_line_element(Element, Element).

                 /*******************************
                 *          ARGUMENTS           *
                 *******************************/

run(Argv) :-
    (   memberchk('--help', Argv) ; memberchk('-h', Argv) ),
    !,
    usage(Text),
    format("~s", [Text]).
run(Argv) :-
    parse_args(Argv, opts(Files, Queries, Given, Method, Elim, Outputs, Extra)),
    (   Files = [Program] -> true
    ;   Files == [] -> throw(usage("no PROGRAM given"))
    ;   true
    ),
    maplist(parse_goal_arg, Queries, QTerms),
    maplist(parse_evidence_arg, Given, GivenEvidence),
    (   memberchk(safe(true), Extra) -> Safe = true ; Safe = false ),
    load_program(Program, Safe),
    lpad_queries(cli_program:FileQueries, FileEvidence),
    append(FileEvidence, GivenEvidence, Evidence),
    exclude(==(safe(true)), Extra, QueryExtra),
    Options = [method(Method), elimination(Elim) | QueryExtra],
    (   QTerms \== []
    ->  forall(member(Q, QTerms), answer(Q, Evidence, Options)),
        QTerms = [First | _]
    ;   FileQueries \== []
    ->  forall(member(Q, FileQueries), answer_fact(Q, Evidence, Options)),
        FileQueries = [First | _]
    ;   throw(usage("no QUERY given, and the program has no query/1 facts"))
    ),
    forall(member(Out, Outputs), output_file(Out, First)).

parse_args(Argv, Opts) :-
    parse_args(Argv, [], [], cf, cst, [], [], Opts).

parse_args([], Pos, Gs, M, E, Outs, Extra,
           opts(Files, Queries, Given, M, E, Outputs, Extra)) :-
    !,
    reverse(Pos, All),
    (   All = [P | Qs0] -> Files = [P], Queries = Qs0 ; Files = [], Queries = [] ),
    reverse(Gs, Given),
    reverse(Outs, Outputs).
parse_args(['--progress' | Rest], Pos, Gs, M, E, Outs, Extra, Opts) :-
    !,
    parse_args(Rest, Pos, Gs, M, E, Outs, [progress(true) | Extra], Opts).
parse_args(['--safe' | Rest], Pos, Gs, M, E, Outs, Extra, Opts) :-
    !,
    parse_args(Rest, Pos, Gs, M, E, Outs, [safe(true) | Extra], Opts).
parse_args([Opt | Rest], Pos, Gs, M, E, Outs, Extra, Opts) :-
    atom(Opt),
    sub_atom(Opt, 0, 2, _, '--'),
    !,
    (   sub_atom(Opt, Before, 1, After, '=')
    ->  sub_atom(Opt, 0, Before, _, Name),
        sub_atom(Opt, _, After, 0, Value),
        Rest1 = Rest
    ;   Name = Opt,
        (   Rest = [Value | Rest1] -> true ; throw(usage(format("option ~w needs a value", [Name]))) )
    ),
    option_arg(Name, Value, Gs, M, E, Outs, Extra, Gs1, M1, E1, Outs1, Extra1),
    parse_args(Rest1, Pos, Gs1, M1, E1, Outs1, Extra1, Opts).
parse_args([Arg | Rest], Pos, Gs, M, E, Outs, Extra, Opts) :-
    parse_args(Rest, [Arg | Pos], Gs, M, E, Outs, Extra, Opts).

option_arg('--given', V, Gs, M, E, O, X, [V | Gs], M, E, O, X) :- !.
option_arg('--method', V, Gs, _, E, O, X, Gs, V, E, O, X) :-
    !,
    (   memberchk(V, [cf, tables, cpts, cfme]) -> true
    ;   throw(usage(format("unknown method '~w' (cf, tables, cpts or cfme)", [V])))
    ).
option_arg('--elimination', V, Gs, M, _, O, X, Gs, M, V, O, X) :-
    !,
    (   memberchk(V, [cst, absorption]) -> true
    ;   throw(usage(format("unknown elimination '~w' (cst or absorption)", [V])))
    ).
option_arg('--max-table-entries', V, Gs, M, E, O, X, Gs, M, E, O, [max_table_entries(N) | X]) :-
    !,
    (   V == inf -> N = inf
    ;   catch(atom_number(V, N), _, fail), integer(N), N > 0 -> true
    ;   throw(usage(format("--max-table-entries needs a positive integer or inf, not '~w'", [V])))
    ).
option_arg(Name, V, Gs, M, E, O, X, Gs, M, E, [Out | O], X) :-
    output_option(Name, Kind),
    !,
    Out =.. [Kind, V].
option_arg(Name, _, _, _, _, _, _, _, _, _, _, _) :-
    throw(usage(format("unknown option ~w", [Name]))).

output_option('--dot', dot).
output_option('--png', png).
output_option('--save', save).
output_option('--hugin', hugin).

usage_text(format(F, A), Text) :- !, format(string(Text), F, A).
usage_text(Text, Text).

% Goals are read with the library's operators (P::H) and checked as
% prob/3 checks its query and evidence.
read_goal(What, Text, Term) :-
    (   catch(term_string(Term, Text, [module(cplogic_lpad)]), _, fail)
    ->  true
    ;   throw(usage(format("cannot read ~w '~w' as a Prolog term", [What, Text])))
    ).

parse_goal_arg(Text, Term) :-
    read_goal(query, Text, Term),
    (   cplogic_lpad:query_goal(Term)
    ->  true
    ;   throw(usage(format("query '~w' is not a goal", [Text])))
    ).

parse_evidence_arg(Text, Literal) :-
    read_goal(evidence, Text, Literal),
    (   cplogic_lpad:evidence_literal(Literal, _, _)
    ->  true
    ;   throw(usage(format("evidence '~w' is not a goal or \\+ of one", [Text])))
    ).

                 /*******************************
                 *            PROGRAM           *
                 *******************************/

% A file whose directives mark its program with begin_lpad/end_lpad is
% ordinary Prolog with helper predicates; any other file is read as an LPAD
% program alone.
load_program(File, Safe) :-
    catch(program_mode(File, Mode), E, program_file_error(File, E)),
    module_property(cplogic, file(Library)),
    cli_program:use_module(Library),
    (   Mode == prolog
    ->  consult_program(File, Safe)
    ;   catch(lpad_load(File, cli_program, [safe(Safe)]), E, program_error(E))
    ).

program_file_error(File, error(existence_error(source_sink, _), _)) :-
    !,
    throw(program(format("~w: no such file", [File]))).
program_file_error(_, E) :-
    program_error(E).

% In safe mode the file's own directives and the program's body goals are
% checked, so that loading it runs nothing the sandbox refuses.
consult_program(File, Safe) :-
    nb_setval(cplogic_cli_errors, []),
    (   Safe == true -> cplogic_lpad:lpad_safe_module(cli_program) ; true ),
    setup_call_cleanup(
        asserta((user:message_hook(Term, error, _) :- cplogic_cli:note_error(Term)), Ref),
        load_files(cli_program:File, [if(true), sandboxed(Safe)]),
        erase(Ref)),
    nb_getval(cplogic_cli_errors, Errors),
    (   Errors = [First | _] -> throw(program(First)) ; true ).

% Kept as text: a syntax error's stream is gone once loading is over.
note_error(Term) :-
    message_line(Term, Line),
    nb_getval(cplogic_cli_errors, Es),
    append(Es, [Line], Es1),
    nb_setval(cplogic_cli_errors, Es1).

program_error(E) :-
    message_line(E, Line),
    throw(program(Line)).

                 /*******************************
                 *            ANSWERS           *
                 *******************************/

% A query with variables answers each of its instances on a line.
answer(Q, Evidence, Options) :-
    query_answers(Q, Evidence, Options, Answers),
    forall(member(A-P, Answers),
           (   Evidence == []
           ->  format("P(~W) = ~6g~n", [A, [quoted(true), priority(999)], P])
           ;   format_evidence(Evidence, EText),
               format("P(~W | ~w) = ~6g~n", [A, [quoted(true), priority(999)], EText, P])
           )).

answer_fact(Q, Evidence, Options) :-
    query_answers(Q, Evidence, Options, Answers),
    forall(member(A-P, Answers),
           format("~W: ~6g~n", [A, [quoted(true), priority(999)], P])).

query_answers(Q, Evidence, Options, Answers) :-
    catch(prob_all(cli_program:Q, Evidence, Answers, Options), E, program_error(E)).

% A conjunction or disjunction is printed in parentheses.
goal_text(G, Text) :-
    format(string(Text), "~W", [G, [quoted(true), priority(999)]]).

format_evidence(Evidence, Text) :-
    maplist(goal_text, Evidence, Strings),
    atomic_list_concat(Strings, ', ', Text).

% A file that cannot be opened is named in one line.
output_file(Out, Query) :-
    arg(1, Out, File),
    catch(write_output(Out, Query), error(E, _), cannot_write(E, File)).

cannot_write(E, File) :-
    (   ( E = existence_error(source_sink, _) ; E = permission_error(_, _, _) )
    ->  throw(program(format("cannot write ~w", [File])))
    ;   throw(error(E, _))
    ).

write_output(dot(File), _) :-
    theory(T),
    cplogic:vorn_cp_theory_print_graphviz(T, File).
write_output(png(File), _) :-
    theory(T),
    tmp_file(cplogic, Dot),
    cplogic:vorn_cp_theory_print_graphviz(T, Dot),
    (   absolute_file_name(path(dot), DotExe, [access(execute), file_errors(fail)])
    ->  true
    ;   throw(program("--png needs Graphviz's dot, which is not installed"))
    ),
    catch(process_create(DotExe, ['-Tpng', '-o', File, Dot], [stderr(null), process(Pid)]),
          _, throw(program("cannot run Graphviz's dot"))),
    process_wait(Pid, Status),
    delete_file(Dot),
    (   Status == exit(0) -> true
    ;   throw(program(format("dot could not write ~w", [File])))
    ).
write_output(save(File), _) :-
    theory(T),
    cplogic:vorn_cp_theory_save(T, File).
write_output(hugin(File), Query) :-
    (   ground(Query), Query \= (_, _), Query \= (_ ; _), Query \= (\+ _)
    ->  true
    ;   throw(program(format("--hugin needs a ground atom as the first query, not ~q", [Query])))
    ),
    theory(T),
    cplogic:cplogic_hugin_net(T, Query, File).

theory(T) :-
    lpad_theory(cli_program:_, T).
