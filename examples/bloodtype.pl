% Blood types in a family.  Every person carries a maternal (m) and a
% paternal (f) allele, each a, b or o.  Founders draw their alleles from the
% population; a child receives one of its mother's two alleles as its m
% allele and one of its father's as its f allele, each chosen with
% probability 1/2.  The blood type follows from the two alleles.
%
% The theory is given as first-order events and their groundings, which the
% module collects without duplicates (the generator below repeats the
% blood-type rules of every parent once per child).
%
% Run from the repository root after building:  swipl examples/bloodtype.pl

:- use_module('../prolog/cplogic').
:- use_module(library(aggregate)).
:- use_module(library(lists)).
:- initialization(main, main).

parent(dad, mother, grandma1).
parent(dad, father, grandpa1).
parent(mom, mother, grandma2).
parent(mom, father, grandpa2).
parent(kid, mother, mom).
parent(kid, father, dad).
parent(sibling, mother, mom).
parent(sibling, father, dad).

person(P) :-
    member(P, [grandma1, grandpa1, grandma2, grandpa2, dad, mom, kid, sibling]).

founder(P) :-
    person(P),
    \+ parent(P, _, _).

slot(mother, m).
slot(father, f).

frequency(a, 0.28).
frequency(b, 0.07).
frequency(o, 0.65).

blood_type(X, Y, T) :-
    member(X-Y-T, [a-a-a, a-o-a, o-a-a, b-b-b, b-o-b, o-b-b, a-b-ab, b-a-ab, o-o-o]).

% First-order events with the number of terms (head + body) per grounding.
first_order_event(0, 3).  % founder: allele(P,S,a) ; allele(P,S,b) ; allele(P,S,o)
first_order_event(1, 2).  % inheritance: from(C,S,m):0.5 ; from(C,S,f):0.5
first_order_event(2, 3).  % allele(C,S,X) :- from(C,S,W), allele(Parent,W,X)
first_order_event(3, 3).  % bloodtype(P,T) :- allele(P,m,X), allele(P,f,Y)

grounding(ground(0, Head, [])) :-
    founder(P),
    member(S, [m, f]),
    findall(h(allele(P, S, X), F), frequency(X, F), Head).
grounding(ground(1, [h(from(C, S, m), 0.5), h(from(C, S, f), 0.5)], [])) :-
    parent(C, Role, _),
    slot(Role, S).
grounding(ground(2, [h(allele(C, S, X), 1.0)], [from(C, S, W), allele(Parent, W, X)])) :-
    parent(C, Role, Parent),
    slot(Role, S),
    member(W, [m, f]),
    frequency(X, _).
grounding(Ground) :-
    parent(C, _, Parent),
    member(P, [C, Parent]),
    type_rule(P, Ground).

type_rule(P, ground(3, [h(bloodtype(P, T), 1.0)], [allele(P, m, X), allele(P, f, Y)])) :-
    blood_type(X, Y, T).

question(Evidence, Text) :-
    member(Evidence-Text,
           [ []-'no evidence',
             [e(bloodtype(dad), a), e(bloodtype(mom), b)]-'dad has A, mom has B',
             [e(bloodtype(dad), a), e(bloodtype(mom), b), e(bloodtype(sibling), o)]-
             'dad has A, mom has B, sibling has O'
           ]).

% Evidence e(bloodtype(P), T) stands for e(bloodtype(P, T), 1).
evidence_terms([], []).
evidence_terms([e(bloodtype(P), T)|Es], [e(bloodtype(P, T), 1)|Ts]) :-
    evidence_terms(Es, Ts).

main :-
    pelm_new(vorn_cp_theory, Theory),
    forall(first_order_event(E, N), vorn_cp_theory_add_fo_event(Theory, E, N)),
    aggregate_all(count, grounding(_), Sent),
    forall(grounding(G), vorn_cp_theory_add_ground_event(Theory, G)),
    format("~d groundings sent (duplicates are dropped by the module)~n", [Sent]),
    forall(question(Evidence, Text),
           ( format("~nBlood type of kid, ~w:~n", [Text]),
             evidence_terms(Evidence, Observed),
             forall(member(T, [a, b, ab, o]),
                    ( with_output_to(string(_),
                                     vorn_cp_theory_query_silent(
                                         Theory, bloodtype(kid, T), Observed, P)),
                      format("  P(bloodtype(kid, ~w)) = ~4f~n", [T, P])
                    ))
           )).
