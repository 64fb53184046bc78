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

:- initialization(cli_main, main).

usage("Usage: cplogic PROGRAM QUERY... [--given ATOM]... [--given '\\+ATOM']...
               [--method cf|tables|cpts|cfme] [--elimination cst|absorption]
               [--dot FILE] [--png FILE] [--save FILE] [--hugin FILE]

Loads the LPAD program in the file PROGRAM and prints, for every QUERY (a
ground atom), one line with the query, the evidence and the probability of the
query given the evidence, to 6 significant digits.

  --given ATOM        evidence: ATOM is observed true; '\\+ATOM' observed false
  --method M          how rules become factors: cf (default), tables, cpts, cfme
  --elimination E     cst (default, complete confactor sets) or absorption
  --dot FILE          write the ground theory the queries needed as Graphviz text
  --png FILE          render that graph as a PNG picture (needs Graphviz's dot)
  --save FILE         save the ground theory as CP-logic rules (lpad_load/1 reads it)
  --hugin FILE        write the ground theory as a Hugin network, for the first query
  --help              show this text

PROGRAM holds clauses such as
    sneezing(X):0.7 ; null:0.3 :- flu(X).
    sneezing(X):0.6 :- hay_fever(X).
    flu(bob):0.4.
    hay_fever(bob):0.2.
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
    parse_args(Argv, opts(Files, Queries, Given, Method, Elim, Outputs)),
    (   Files = [Program] -> true
    ;   Files == [] -> throw(usage("no PROGRAM given"))
    ;   true
    ),
    (   Queries == [] -> throw(usage("no QUERY given")) ; true ),
    load_program(Program),
    maplist(parse_atom_arg(query), Queries, QTerms),
    maplist(parse_evidence_arg, Given, Evidence),
    Options = [method(Method), elimination(Elim)],
    forall(member(Q, QTerms), answer(Q, Evidence, Options)),
    QTerms = [First | _],
    forall(member(Out, Outputs), output_file(Out, First)).

parse_args(Argv, Opts) :-
    parse_args(Argv, [], [], [], cf, cst, [], Opts).

parse_args([], Pos, Qs, Gs, M, E, Outs, opts(Files, Queries, Given, M, E, Outputs)) :-
    !,
    reverse(Pos, All),
    (   All = [P | Qs0] -> Files = [P], Queries = Qs0 ; Files = [], Queries = [] ),
    Qs = [],
    reverse(Gs, Given),
    reverse(Outs, Outputs).
parse_args([Opt | Rest], Pos, Qs, Gs, M, E, Outs, Opts) :-
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
    option_arg(Name, Value, Gs, M, E, Outs, Gs1, M1, E1, Outs1),
    parse_args(Rest1, Pos, Qs, Gs1, M1, E1, Outs1, Opts).
parse_args([Arg | Rest], Pos, Qs, Gs, M, E, Outs, Opts) :-
    parse_args(Rest, [Arg | Pos], Qs, Gs, M, E, Outs, Opts).

option_arg('--given', V, Gs, M, E, O, [V | Gs], M, E, O) :- !.
option_arg('--method', V, Gs, _, E, O, Gs, V, E, O) :-
    !,
    (   memberchk(V, [cf, tables, cpts, cfme]) -> true
    ;   throw(usage(format("unknown method '~w' (cf, tables, cpts or cfme)", [V])))
    ).
option_arg('--elimination', V, Gs, M, _, O, Gs, M, V, O) :-
    !,
    (   memberchk(V, [cst, absorption]) -> true
    ;   throw(usage(format("unknown elimination '~w' (cst or absorption)", [V])))
    ).
option_arg(Name, V, Gs, M, E, O, Gs, M, E, [Out | O]) :-
    output_option(Name, Kind),
    !,
    Out =.. [Kind, V].
option_arg(Name, _, _, _, _, _, _, _, _, _) :-
    throw(usage(format("unknown option ~w", [Name]))).

output_option('--dot', dot).
output_option('--png', png).
output_option('--save', save).
output_option('--hugin', hugin).

usage_text(format(F, A), Text) :- !, format(string(Text), F, A).
usage_text(Text, Text).

parse_atom_arg(What, Text, Term) :-
    (   catch(term_string(Term, Text), _, fail)
    ->  true
    ;   throw(usage(format("cannot read ~w '~w' as a Prolog term", [What, Text])))
    ),
    (   ground(Term), callable(Term), Term \= (\+ _)
    ->  true
    ;   throw(usage(format("~w '~w' is not a ground atom", [What, Text])))
    ).

parse_evidence_arg(Text, Literal) :-
    (   catch(term_string(T, Text), _, fail)
    ->  true
    ;   throw(usage(format("cannot read evidence '~w' as a Prolog term", [Text])))
    ),
    (   T = (\+ A) -> Literal = (\+ A) ; A = T, Literal = T ),
    (   ground(A), callable(A)
    ->  true
    ;   throw(usage(format("evidence '~w' is not a ground atom or \\+ of one", [Text])))
    ).

                 /*******************************
                 *            PROGRAM           *
                 *******************************/

% A file that marks its program with begin_lpad/end_lpad is ordinary Prolog
% with helper predicates; any other file is read as an LPAD program alone.
load_program(File) :-
    (   exists_file(File) -> true
    ;   throw(program(format("~w: no such file", [File])))
    ),
    read_file_to_string(File, Text, []),
    module_property(cplogic, file(Library)),
    cli_program:use_module(Library),
    (   sub_string(Text, _, _, _, "begin_lpad")
    ->  consult_program(File)
    ;   catch(lpad_load(File, cli_program), E, program_error(E))
    ).

consult_program(File) :-
    nb_setval(cplogic_cli_errors, []),
    setup_call_cleanup(
        asserta((user:message_hook(Term, error, _) :- cplogic_cli:note_error(Term)), Ref),
        load_files(cli_program:File, [if(true)]),
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

answer(Q, Evidence, Options) :-
    catch(prob(cli_program:Q, Evidence, P, Options), E, program_error(E)),
    (   Evidence == []
    ->  format("P(~q) = ~6g~n", [Q, P])
    ;   format_evidence(Evidence, EText),
        format("P(~q | ~w) = ~6g~n", [Q, EText, P])
    ).

format_evidence(Evidence, Text) :-
    maplist([L, S]>>format(string(S), "~q", [L]), Evidence, Strings),
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
    theory(T),
    cplogic:cplogic_hugin_net(T, Query, File).

theory(T) :-
    lpad_theory(cli_program:_, T).
