% CPU seconds of each step from a program file to an answer.
%
%   swipl bench/load_steps.pl -- FILE.pl...    (programs of gen_families.py)
%
% Each program is loaded (lpad_load/2) into a module of its own; the query
% and evidence of its FILE.json are grounded (lpad_ground/2) and answered
% (prob/3), then answered again. Times are the thread's CPU seconds;
% "program MB" is what the clause store holds after loading.
:- use_module('../prolog/cplogic').
:- use_module(library(http/json)).
:- use_module(library(lists)).

:- initialization(main, main).

main :-
    current_prolog_flag(argv, Files),
    format("| program | load (s) | grounding (s) | first query (s) | repeated query (s) | program MB | answer | expected |~n"),
    format("|---|---:|---:|---:|---:|---:|---:|---:|~n"),
    forall(member(File, Files),
           catch(run_file(File), E,
                 ( print_message(error, E), format("| ~w | error |~n", [File]) ))).

run_file(File) :-
    file_name_extension(Base, pl, File),
    file_name_extension(Base, json, Json),
    setup_call_cleanup(open(Json, read, In), json_read_dict(In, Instance), close(In)),
    term_string(Q, Instance.query),
    findall(L, ( member([A, V], Instance.evidence),
                 term_string(T, A),
                 ( V == true -> L = T ; L = (\+ T) ) ),
            Evidence),
    findall(A, ( member(L, Evidence), ( L = (\+ A) -> true ; A = L ) ), EAtoms),
    file_base_name(Base, M),
    statistics(program, [P0 | _]),
    statistics(cputime, T0),
    lpad_load(File, M),
    statistics(cputime, T1),
    statistics(program, [P1 | _]),
    M:lpad_ground([Q | EAtoms], _),
    statistics(cputime, T2),
    M:prob(Q, Evidence, P),
    statistics(cputime, T3),
    M:prob(Q, Evidence, _),
    statistics(cputime, T4),
    Load is T1 - T0, Ground is T2 - T1, First is T3 - T2, Again is T4 - T3,
    MB is (P1 - P0) / 1.0e6,
    format("| ~w | ~3f | ~3f | ~3f | ~3f | ~1f | ~6g | ~6g |~n",
           [M, Load, Ground, First, Again, MB, P, Instance.expected]).
