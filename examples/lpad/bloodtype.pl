% Blood types over a pedigree. Each person carries a maternal and a paternal
% chromosome with allele a, b or o; founders draw both from the population
% frequencies, everyone else inherits one of each parent's two chromosomes.
%   A founder's P(bloodtype(X, a)) = 0.3^2 + 2*0.3*0.55 = 0.42, and so is
%   anyone's without evidence (the allele frequencies are inherited).
%   P(bloodtype(cecile, a) | bloodtype(alice, o)) = 0.3: cecile's maternal
%   chromosome is then o, so her type is a exactly when her paternal one is.
% Run: swipl -g main -t halt examples/lpad/bloodtype.pl
:- use_module('../../prolog/cplogic').

mother(alice, cecile).
mother(cecile, dora).
father(bert, cecile).
father(dirk, dora).

founder(P) :- member(P, [alice, bert, dirk]).
child(P) :- mother(_, P).

:- begin_lpad.
mchrom(P, a):0.3 ; mchrom(P, b):0.15 ; mchrom(P, o):0.55 :- founder(P).
pchrom(P, a):0.3 ; pchrom(P, b):0.15 ; pchrom(P, o):0.55 :- founder(P).

% Which of the parent's two chromosomes is passed on.
from_mothers_mother(P):0.5 :- child(P).
from_fathers_mother(P):0.5 :- child(P).

mchrom(P, A) :- mother(M, P), from_mothers_mother(P), mchrom(M, A).
mchrom(P, A) :- mother(M, P), \+ from_mothers_mother(P), pchrom(M, A).
pchrom(P, A) :- father(F, P), from_fathers_mother(P), mchrom(F, A).
pchrom(P, A) :- father(F, P), \+ from_fathers_mother(P), pchrom(F, A).

bloodtype(P, T) :- mchrom(P, X), pchrom(P, Y), type_of(X, Y, T).
:- end_lpad.

type_of(a, a, a).  type_of(a, o, a).  type_of(o, a, a).
type_of(b, b, b).  type_of(b, o, b).  type_of(o, b, b).
type_of(a, b, ab). type_of(b, a, ab). type_of(o, o, o).

main :-
    prob(bloodtype(alice, a), P1),
    format("P(bloodtype(alice, a)) = ~6g~n", [P1]),
    prob(bloodtype(dora, a), P2),
    format("P(bloodtype(dora, a)) = ~6g~n", [P2]),
    prob(bloodtype(cecile, a), [bloodtype(alice, o)], P3),
    format("P(bloodtype(cecile, a) | bloodtype(alice, o)) = ~6g~n", [P3]).

