% Grounding and inference time of LPAD programs through prob/3.
%
%   swipl bench/lpad_bench.pl            (after the README's build)
%
% (The programs of gen_families.py, step by step: bench/load_steps.pl.)
%
% Families: a blood-type pedigree of N persons (founders with allele priors,
% everyone else inheriting one chromosome of each parent) and smokers over N
% persons with random one-way friendships. Each run loads the program into a
% fresh module, grounds what the query needs (lpad_ground/2), then answers
% the query (prob/3); both are timed in CPU seconds.
:- use_module('../prolog/cplogic').
:- use_module(library(random)).
:- use_module(library(lists)).

:- initialization(main, main).

% A family tree as in bench/theory_bench.cpp: person 1 is a founder; then
% each child has a new founder as father and an earlier person as mother.
pedigree_program(N, Clauses, Query, Evidence) :-
    Last is N - (N + 1) mod 2,
    findall(P, ( between(2, N, P), P mod 2 =:= 1 ), Children),
    findall(parents(C, M, F),
            ( member(C, Children), F is C - 1, Before is C - 2,
              random_between(1, Before, M0), M is M0 - (M0 mod 2) + 1,
              M < C ), Parents),
    findall(founder(P), ( between(1, N, P), ( P =:= 1 ; P mod 2 =:= 0 ) ), FounderFacts),
    findall(Clause, pedigree_clause(_, _, Clause), Rules),
    append([Rules, Parents, FounderFacts], Clauses),
    Query = bloodtype(Last, a),
    Evidence = [bloodtype(1, o)].

pedigree_clause(_, _, (mchrom(P, a):0.3 ; mchrom(P, b):0.15 ; mchrom(P, o):0.55 :- founder(P))).
pedigree_clause(_, _, (pchrom(P, a):0.3 ; pchrom(P, b):0.15 ; pchrom(P, o):0.55 :- founder(P))).
pedigree_clause(_, _, (from_mothers_mother(P):0.5 :- parents(P, _, _))).
pedigree_clause(_, _, (from_fathers_mother(P):0.5 :- parents(P, _, _))).
pedigree_clause(_, _, (mchrom(P, A) :- parents(P, M, _), from_mothers_mother(P), mchrom(M, A))).
pedigree_clause(_, _, (mchrom(P, A) :- parents(P, M, _), \+ from_mothers_mother(P), pchrom(M, A))).
pedigree_clause(_, _, (pchrom(P, A) :- parents(P, _, F), from_fathers_mother(P), mchrom(F, A))).
pedigree_clause(_, _, (pchrom(P, A) :- parents(P, _, F), \+ from_fathers_mother(P), pchrom(F, A))).
pedigree_clause(_, _, (bloodtype(P, T) :- mchrom(P, X), pchrom(P, Y), type_of(X, Y, T))).

type_of(a, a, a).  type_of(a, o, a).  type_of(o, a, a).
type_of(b, b, b).  type_of(b, o, b).  type_of(o, b, b).
type_of(a, b, ab). type_of(b, a, ab). type_of(o, o, o).

smokers_program(N, Clauses, Query, Evidence) :-
    numlist(1, N, Persons),
    findall(person(P), member(P, Persons), PersonFacts),
    % each person is influenced by up to two earlier persons
    findall(influences(Q, P),
            ( member(P, Persons), P > 1, between(1, 2, _),
              maybe(0.7), Before is P - 1, random_between(1, Before, Q) ), Edges0),
    sort(Edges0, Edges),
    Rules = [ (stress(X):0.3 :- person(X)),
              (smokes(X):0.4 :- stress(X)),
              (smokes(X):0.2 :- influences(Y, X), smokes(Y)),
              (cancer(X):0.1 :- smokes(X)) ],
    append([Rules, PersonFacts, Edges], Clauses),
    Query = smokes(N),
    Evidence = [cancer(1)].

% The deterministic facts of a family are helpers: they are asserted in the
% module, and only the probabilistic rules form the LPAD program.
run(Family, N, Ground, Infer, P) :-
    set_random(seed(N)),
    Goal =.. [Family, N, Clauses, Query, Evidence],
    call(Goal),
    format(atom(M), "~w_~w", [Family, N]),
    partition([C]>>(C = (_ :- _)), Clauses, Rules, Facts),
    forall(member(F, Facts), assertz(M:F)),
    forall(member(H, [type_of(_, _, _)]), ( clause(H, true), assertz(M:H), fail ; true )),
    tmp_file(lpad, File),
    setup_call_cleanup(open(File, write, S),
                       forall(member(R, Rules), format(S, "~q.~n", [R])),
                       close(S)),
    lpad_load(File, M),
    findall(A, ( member(L, Evidence), ( L = (\+ A) -> true ; A = L ) ), EAtoms),
    statistics(cputime, T0),
    M:lpad_ground([Query | EAtoms], _),
    statistics(cputime, T1),
    M:prob(Query, Evidence, P),
    statistics(cputime, T2),
    Ground is T1 - T0,
    Infer is T2 - T1.

main :-
    format("| family | n | grounding (s) | inference (s) | total (s) | answer |~n"),
    format("|---|---:|---:|---:|---:|---:|~n"),
    forall(member(Family-N, [pedigree_program-100, pedigree_program-1000,
                              smokers_program-10, smokers_program-50, smokers_program-100]),
           ( run(Family, N, G, I, P),
             Total is G + I,
             atom_concat(Name, '_program', Family),
             format("| ~w | ~w | ~3f | ~3f | ~3f | ~6g |~n", [Name, N, G, I, Total, P]) )).
