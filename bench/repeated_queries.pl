% Many different queries on one program: each should cost what the part of
% the program it depends on costs, not what the whole program has grown to.
%
%   swipl bench/repeated_queries.pl -- PROGRAM.pl [COUNT]
%
% Loads PROGRAM (a bloodtype pedigree of gen_families.py), then asks
% bloodtype(P, T) for persons taken evenly along the pedigree and the four
% types, COUNT queries in all (default 1000), and prints the median and the
% largest CPU time of one prob/2 call, and the query that took longest.
:- use_module('../prolog/cplogic').
:- use_module(library(pcre)).
:- initialization(main, main).

main :-
    current_prolog_flag(argv, [File|Rest]),
    ( Rest = [C] -> atom_number(C, Count) ; Count = 1000 ),
    statistics(cputime, T0),
    lpad_load(File, bt),
    statistics(cputime, T1),
    Load is T1 - T0,
    persons(File, Persons),
    length(Persons, NP),
    Types = [a, b, ab, null],
    findall(bloodtype(P, T),
            ( between(1, Count, I),
              K is 1 + ((I - 1) // 4 * 7919) mod NP, nth1(K, Persons, P),
              J is 1 + (I - 1) mod 4, nth1(J, Types, T) ),
            Queries),
    maplist(timed, Queries, Timed),
    msort(Timed, Sorted),
    length(Sorted, N),
    Mid is (N + 1) // 2, nth1(Mid, Sorted, Median-_),
    last(Sorted, Max-Slowest),
    format("load ~3f s; ~d queries: median ~4f s, largest ~4f s (~q)~n",
           [Load, N, Median, Max, Slowest]).

timed(Q, T-Q) :-
    statistics(cputime, A),
    bt:prob(Q, _),
    statistics(cputime, B),
    T is B - A.

% The persons of the program, in the order the file names them.
persons(File, Persons) :-
    read_file_to_string(File, S, []),
    re_foldl(add_person, "mchrom\\((p[0-9]+),", S, [], Rev, []),
    reverse(Rev, All),
    list_to_set(All, Persons).

add_person(Match, L, [P|L]) :-
    atom_string(P, Match.1).
