:- module(cplogic_cycles,
          [ acyclic_rules/2,            % +Rules, -AcyclicRules
            cyclic_vertices/2           % +Edges, -Vertices
          ]).

/** <module> Ground programs with positive cycles as acyclic theories

The theory of the core is acyclic: an atom cannot depend on itself. A ground
LPAD program with positive cycles means, in every world (every choice of the
rules), the least model of the rules that chose a head atom. acyclic_rules/2
rewrites such a program into an acyclic one whose atoms have that least
model in every world; auxiliary atoms are '$cplogic_aux'(N), a functor that
no program writes by accident.

The strongly connected components of the ground dependency graph are found
first. A cyclic component is a system of Boolean equations over its atoms,
  x_h = OR_r (c_r and x_j1 and ... and x_jm)      (j1..jm in the component)
where each c_r is a conjunction of literals on atoms outside the component
and of the rule's choice. Its least solution is computed by eliminating the
atoms one at a time (eliminate_component//1), as in Gaussian elimination
over (or, and): a rule that needs its own head adds nothing (a* = 1), and
removing x_k replaces every use of x_k by x_k's rules. Each coefficient
that changes becomes an auxiliary atom defined by deterministic rules, so
the blow-up is the fill-in of the elimination order (fewest new rules
first): a constant per node on ladders and grid-like graphs. Rules with
several component atoms in their body (non-linear recursion) are
eliminated the same way, where the number of rules can grow much faster;
past a bound that is an error, not a guess.

A rule whose choice would be copied (a head of several atoms) first makes
its choice once, into auxiliary atoms that the copies share.

Negation inside a cyclic component has no least model to follow and is an
error naming the atoms of one such cycle.
*/

:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(assoc)).
:- use_module(library(heaps)).
:- use_module(library(pairs)).
:- use_module(library(ordsets)).

% Arithmetic compiled inline (the flag holds for this file only).
:- set_prolog_flag(optimise, true).

%!  acyclic_rules(+Rules, -Acyclic) is det.
%
%   Rules is a list of rule(Heads, Lits, Where), Heads = [Atom-Prob, ...],
%   Lits = [pos(Atom) | neg(Atom), ...]; Where names the clause in errors.
%   Acyclic is a list of rule(Heads, Lits, Where) without positive cycles
%   and with the same least model on the atoms of Rules in every world.
%   Raises cplogic_error(negation_in_cycle(Atoms), Where) for a cycle
%   through a negated literal, and cplogic_error(cycle_too_large(Atom),
%   cycle) when eliminating a component would make too many rules.
acyclic_rules(Rules, Acyclic) :-
    with_trie(acyclic_rules(Rules, Acyclic)).

% The atoms are numbered in a trie that lives as long as the call.
with_trie(Goal) :-
    setup_call_cleanup(trie_new(Trie), call(Goal, Trie), trie_destroy(Trie)).

acyclic_rules(Rules, Acyclic, Trie) :-
    foldl(number_heads(Trie), Rules, 0, N),
    dependency_graph(Rules, Trie, N, Succ),
    tarjan(N, Succ, Comp, Cyclic),
    (   Cyclic == []
    ->  Acyclic = Rules
    ;   Ctx = ctx(Trie, Comp, CycSet),
        pairs_keys_values(CycPairs, Cyclic, Cyclic),
        list_to_assoc(CycPairs, CycSet),
        check_negation(Rules, Ctx, Succ),
        rewrite(Rules, Ctx, Acyclic)
    ).

%!  cyclic_vertices(+Edges, -Vertices) is det.
%
%   Vertices are the vertices on a cycle of the graph with Edges, a list of
%   From-To pairs of ground terms.
cyclic_vertices(Edges, Vertices) :-
    with_trie(cyclic_vertices(Edges, Vertices)).

cyclic_vertices(Edges, Vertices, Trie) :-
    foldl(number_edge(Trie), Edges, 0, N),
    findall(I-(J-pos), ( member(V-W, Edges), node(Trie, V, I), node(Trie, W, J) ), Arcs),
    successor_array(N, Arcs, Succ),
    tarjan(N, Succ, Comp, Cyclic),
    pairs_keys_values(CycPairs, Cyclic, Cyclic),
    list_to_assoc(CycPairs, CycSet),
    findall(V, ( trie_gen(Trie, V, I), arg(I, Comp, C), get_assoc(C, CycSet, _) ), Vertices0),
    sort(Vertices0, Vertices).

number_edge(Trie, V-W, N0, N) :-
    number_atom(Trie, V-_, N0, N1),
    number_atom(Trie, W-_, N1, N).

                 /*******************************
                 *      DEPENDENCY GRAPH        *
                 *******************************/

% The head atoms are numbered 1..N; atoms without rules cannot be on a cycle.
number_heads(Trie, rule(Heads, _, _), N0, N) :-
    foldl(number_atom(Trie), Heads, N0, N).

number_atom(Trie, A-_, N0, N) :-
    (   trie_lookup(Trie, A, _)
    ->  N = N0
    ;   N is N0 + 1,
        trie_insert(Trie, A, N)
    ).

node(Trie, A, I) :-
    trie_lookup(Trie, A, I).

% Succ: arg I is the list of J-Sign for the literals of I's rules on atoms J.
dependency_graph(Rules, Trie, N, Succ) :-
    findall(I-(J-Sign),
            ( member(rule(Heads, Lits, _), Rules),
              member(L, Lits),
              arg(1, L, B),
              node(Trie, B, J),
              functor(L, Sign, _),
              member(H-_, Heads),
              node(Trie, H, I)
            ),
            Arcs),
    successor_array(N, Arcs, Succ).

% Each node's list is set once: setting an argument copies the value.
successor_array(N, Arcs, Succ) :-
    functor(Succ, succ, N),
    forall(between(1, N, I), nb_setarg(I, Succ, [])),
    keysort(Arcs, Sorted),
    group_pairs_by_key(Sorted, ByNode),
    forall(member(I-Out, ByNode), nb_setarg(I, Succ, Out)).

% tarjan(+N, +Succ, -Comp, -Cyclic): Comp arg I is the component number of
% node I; Cyclic lists the components with a cycle (two nodes or a loop).
% Iterative, so that a long chain costs no Prolog recursion; the arrays
% hold integers only, the node stack is threaded through the calls.
% st(NextIndex, NodeStack, Components, Cyclic).
tarjan(N, Succ, Comp, Cyclic) :-
    functor(Index, index, N),
    functor(Low, low, N),
    functor(OnStack, on, N),
    functor(Comp, comp, N),
    forall(between(1, N, I), ( nb_setarg(I, Index, 0), nb_setarg(I, OnStack, 0) )),
    A = arrays(Succ, Index, Low, OnStack, Comp),
    findall(V, between(1, N, V), Vs),
    foldl(strongconnect(A), Vs, st(1, [], 0, []), st(_, _, _, Cyclic)).

strongconnect(A, V, St0, St) :-
    A = arrays(_, Index, _, _, _),
    (   arg(V, Index, 0)
    ->  visit(V, A, St0, St1, Frame),
        dfs([Frame], A, St1, St)
    ;   St = St0
    ).

visit(V, arrays(Succ, Index, Low, OnStack, _), st(I, S, C, Cy), st(I1, [V | S], C, Cy),
      frame(V, Ws)) :-
    I1 is I + 1,
    nb_setarg(V, Index, I),
    nb_setarg(V, Low, I),
    nb_setarg(V, OnStack, 1),
    arg(V, Succ, Edges),
    pairs_keys(Edges, Ws).

dfs([], _, St, St).
dfs([frame(V, Ws) | Frames], A, St0, St) :-
    A = arrays(_, Index, Low, OnStack, _),
    (   Ws = [W | Rest]
    ->  (   arg(W, Index, 0)
        ->  visit(W, A, St0, St1, Frame),
            dfs([Frame, frame(V, Rest) | Frames], A, St1, St)
        ;   (   arg(W, OnStack, 1)
            ->  arg(W, Index, IW),
                lower(V, IW, Low)
            ;   true
            ),
            dfs([frame(V, Rest) | Frames], A, St0, St)
        )
    ;   arg(V, Low, LV),
        (   arg(V, Index, LV)
        ->  pop_component(V, A, St0, St1)
        ;   St1 = St0
        ),
        (   Frames = [frame(U, _) | _]
        ->  lower(U, LV, Low)
        ;   true
        ),
        dfs(Frames, A, St1, St)
    ).

lower(V, X, Low) :-
    arg(V, Low, L),
    (   X < L -> nb_setarg(V, Low, X) ; true ).

pop_component(V, arrays(Succ, _, _, OnStack, Comp), st(I, S0, C0, Cy0), st(I, S, C, Cy)) :-
    C is C0 + 1,
    pop_until(S0, V, OnStack, Comp, C, Members, S),
    (   (   Members = [_, _ | _]
        ;   arg(V, Succ, Edges), memberchk(V-_, Edges)
        )
    ->  Cy = [C | Cy0]
    ;   Cy = Cy0
    ).

pop_until([W | S0], V, OnStack, Comp, C, [W | Ms], S) :-
    nb_setarg(W, OnStack, 0),
    nb_setarg(W, Comp, C),
    (   W == V
    ->  Ms = [], S = S0
    ;   pop_until(S0, V, OnStack, Comp, C, Ms, S)
    ).

                 /*******************************
                 *     NEGATION IN A CYCLE      *
                 *******************************/

check_negation(Rules, ctx(Trie, Comp, _), Succ) :-
    forall(( member(rule(Heads, Lits, Where), Rules),
             member(neg(B), Lits),
             node(Trie, B, J),
             member(H-_, Heads),
             node(Trie, H, I),
             arg(I, Comp, C),
             arg(J, Comp, C)
           ),
           negation_error(I, J, C, Trie, Comp, Succ, Where)).

% The cycle: H, \+ B, then a shortest path from B back to H in the component.
negation_error(I, J, C, Trie, Comp, Succ, Where) :-
    path_in_component(J, I, C, Comp, Succ, Path),
    findall(A, ( member(K, [I | Path]), trie_gen(Trie, A, K) ), Atoms),
    throw(error(cplogic_error(negation_in_cycle(Atoms), Where), _)).

% Breadth-first, with the predecessor of each reached node in an assoc.
path_in_component(From, To, C, Comp, Succ, Path) :-
    list_to_assoc([From-none], Seen),
    bfs([From], To, C, Comp, Succ, Seen, Preds),
    back_path(To, Preds, [], Path0),
    append(Path, [_], Path0).            % the cycle without its last atom

bfs(Queue, To, C, Comp, Succ, Seen, Preds) :-
    (   Queue == []
    ->  Preds = Seen
    ;   memberchk(To, Queue), get_assoc(To, Seen, _)
    ->  Preds = Seen
    ;   foldl(expand_bfs(C, Comp, Succ), Queue, Seen-[], Seen1-Next0),
        reverse(Next0, Next),
        bfs(Next, To, C, Comp, Succ, Seen1, Preds)
    ).

expand_bfs(C, Comp, Succ, V, Seen0-Next0, Seen-Next) :-
    arg(V, Succ, Edges),
    foldl(reach(V, C, Comp), Edges, Seen0-Next0, Seen-Next).

reach(V, C, Comp, W-_, Seen0-Next0, Seen-Next) :-
    (   arg(W, Comp, C), \+ get_assoc(W, Seen0, _)
    ->  put_assoc(W, Seen0, V, Seen),
        Next = [W | Next0]
    ;   Seen = Seen0, Next = Next0
    ).

back_path(V, Preds, Acc, Path) :-
    get_assoc(V, Preds, P),
    (   P == none
    ->  Path = [V | Acc]
    ;   back_path(P, Preds, [V | Acc], Path)
    ).


                 /*******************************
                 *          REWRITING           *
                 *******************************/

% Rules with a head in a cyclic component become items of that component,
% item(Head, Prob, Inputs, Inner, Where) with Inner the body atoms inside
% the component and Inputs the other literals; the other rules stay.
rewrite(Rules, Ctx, Acyclic) :-
    foldl(split_rule(Ctx), Rules, Kept-Items0, []-[]),
    keysort(Items0, Items1),
    group_pairs_by_key(Items1, ByComp),
    foldl(rewrite_component, ByComp, New, []),
    append(Kept, New, Acyclic).

component(ctx(Trie, Comp, _), A, C) :-
    node(Trie, A, I),
    arg(I, Comp, C).

cyclic_head(Ctx, H) :-
    component(Ctx, H, C),
    Ctx = ctx(_, _, CycSet),
    get_assoc(C, CycSet, _).

% Kept0-Items0 are the open lists from this rule on, Kept-Items their tails.
split_rule(Ctx, Rule, Kept0-Items0, Kept-Items) :-
    Rule = rule(Heads, Lits, Where),
    (   \+ ( member(H-_, Heads), cyclic_head(Ctx, H) )
    ->  Kept0 = [Rule | Kept], Items0 = Items
    ;   Heads = [H-P]
    ->  item(Ctx, H, P, Lits, Where, Item),
        Kept0 = Kept, Items0 = [Item | Items]
    ;   choice_rules(Ctx, Rule, Choice, Derived),
        Kept0 = [Choice | Kept1],
        foldl(derived_rule(Ctx), Derived, Kept1-Items0, Kept-Items)
    ).

derived_rule(Ctx, Rule, Kept0-Items0, Kept-Items) :-
    Rule = rule([H-P], Lits, Where),
    (   cyclic_head(Ctx, H)
    ->  item(Ctx, H, P, Lits, Where, Item),
        Kept0 = Kept, Items0 = [Item | Items]
    ;   Kept0 = [Rule | Kept], Items0 = Items
    ).

item(Ctx, H, P, Lits, Where, C-item(H, P, Inputs, Inner, Where)) :-
    component(Ctx, H, C),
    partition(in_components(Ctx, [C]), Lits, InLits, Inputs),
    maplist(arg(1), InLits, Inner0),
    sort(Inner0, Inner).

in_components(Ctx, Cs, L) :-
    arg(1, L, B),
    component(Ctx, B, C),
    memberchk(C, Cs).

% A rule of several head atoms chooses once, into one auxiliary atom per
% head atom, under the body literals that do not depend on its heads (they
% are in none of the heads' components); each head atom then follows from
% its choice and the rest of the body.
choice_rules(Ctx, rule(Heads, Lits, Where), rule(ChoiceHeads, Outer, Where), Derived) :-
    findall(C, ( member(H-_, Heads), component(Ctx, H, C) ), Cs0),
    sort(Cs0, Cs),
    partition(in_components(Ctx, Cs), Lits, Inner, Outer),
    maplist(choice_atom(Inner, Where), Heads, ChoiceHeads, Derived).

choice_atom(Inner, Where, H-P, X-P, rule([H-1.0], [pos(X) | Inner], Where)) :-
    fresh_atom(X).

fresh_atom('$cplogic_aux'(N)) :-
    flag(cplogic_aux_atom, N, N + 1).

% The rules of one cyclic component, as difference list New-Tail.
rewrite_component(_C-Items0, New, Tail) :-
    exclude(needs_own_head, Items0, Items),
    phrase(eliminate_component(Items), New, Tail).

% A rule that needs its own head never adds it to a least model.
needs_own_head(item(H, _, _, Inner, _)) :-
    memberchk(H, Inner).

                 /*******************************
                 *          ELIMINATION         *
                 *******************************/

% The component is a set of rules x_h <- c and x_j1 and ... and x_jm over
% its atoms, c a coefficient: true, lit(Literal), or absent (false). The
% rules of one head with the same set {j1, ..., jm} are one rule whose
% coefficient is the disjunction of theirs.
%
% Eliminating x_k: its least value given the others is the disjunction of
% its rules with x_k itself false (a Boolean monotone function reaches its
% least fixpoint in one step), so rules that need x_k for x_k are dropped.
% Each rule of another atom that uses x_k is replaced by one rule per rule
% of x_k, with both coefficients and both sets of atoms; a rule that then
% needs its own head is dropped for the same reason. x_k itself follows
% from its rules at that moment, over atoms eliminated later. With one
% component atom per body this is Gaussian elimination over (or, and).
%
% The state is g(Rules, Users): Rules maps an atom to an assoc from atom
% sets (ordsets) to coefficients, Users maps an atom to the ordset of atoms
% with a rule that uses it (possibly more: entries are not removed).
eliminate_component(Items) -->
    { foldl(add_cause, Items, [], Causes0),
      msort(Causes0, Causes1),
      group_pairs_by_key(Causes1, Causes),
      empty_assoc(E)
    },
    initial_rules(Causes, g(E, E), G0),
    { component_atoms(Items, Atoms),
      foldl(cost_entry(G0), Atoms, Entries, []),
      list_to_heap(Entries, Heap),
      pairs_keys_values(LivePairs, Atoms, Atoms),
      list_to_assoc(LivePairs, Live),
      max_component_rules(Max),
      Budget = budget(Max)
    },
    eliminate(Heap, Live, G0, Budget).

% Largest number of rules that eliminating one component may make.
max_component_rules(200000).

add_cause(item(H, P, Inputs, Inner, W), Cs, [H-Inner-cause(P, Inputs, W) | Cs]).

component_atoms(Items, Atoms) :-
    findall(A, ( member(item(H, _, _, Inner, _), Items), member(A, [H | Inner]) ), As),
    sort(As, Atoms).

initial_rules([], G, G) --> [].
initial_rules([H-Set-Causes | Rest], G0, G) -->
    causes_coefficient(Causes, Coef),
    { set_rule(H, Set, Coef, G0, G1) },
    initial_rules(Rest, G1, G).

% Several causes of one rule are independent rules of an auxiliary atom;
% one certain cause of at most one literal is that literal.
causes_coefficient(Causes, Coef) -->
    (   { memberchk(cause(P, [], _), Causes), P >= 1.0 }
    ->  { Coef = true }
    ;   { Causes = [cause(P, [L], _)], P >= 1.0 }
    ->  { Coef = lit(L) }
    ;   { fresh_atom(X), Coef = lit(pos(X)) },
        cause_rules(Causes, X)
    ).

cause_rules([], _) --> [].
cause_rules([cause(P, Inputs, W) | Cs], X) -->
    [ rule([X-P], Inputs, W) ],
    cause_rules(Cs, X).

set_rule(H, Set, Coef, g(Rules0, Users0), g(Rules, Users)) :-
    (   get_assoc(H, Rules0, Row0) -> true ; empty_assoc(Row0) ),
    put_assoc(Set, Row0, Coef, Row),
    put_assoc(H, Rules0, Row, Rules),
    foldl(add_user(H), Set, Users0, Users).

add_user(H, J, Users0, Users) :-
    (   get_assoc(J, Users0, Us0) -> true ; Us0 = [] ),
    ord_add_element(Us0, H, Us),
    put_assoc(J, Users0, Us, Users).

rules_of(g(Rules, _), K, List) :-
    (   get_assoc(K, Rules, Row) -> assoc_to_list(Row, List) ; List = [] ).

users_of(g(_, Users), K, Us) :-
    (   get_assoc(K, Users, Us0) -> Us = Us0 ; Us = [] ).

% Rules of H that use K.
using(G, K, H, Uses) :-
    rules_of(G, H, List),
    include(uses(K), List, Uses).

uses(K, Set-_) :-
    ord_memberchk(K, Set).

% The number of rules that eliminating K makes.
cost(G, K, Cost) :-
    rules_of(G, K, Own),
    length(Own, NK),
    users_of(G, K, Us),
    foldl(count_uses(G, K), Us, 0, NU),
    Cost is NK * NU.

count_uses(G, K, H, N0, N) :-
    (   H == K
    ->  N = N0
    ;   using(G, K, H, Uses),
        length(Uses, L),
        N is N0 + L
    ).

cost_entry(G, K, [Cost-K | T], T) :-
    cost(G, K, Cost).

heap_entry(Cost-K, Heap0, Heap) :-
    add_to_heap(Heap0, Cost, K, Heap).

eliminate(Heap0, Live0, G0, Budget) -->
    (   { get_from_heap(Heap0, Cost, K, Heap1) }
    ->  (   { get_assoc(K, Live0, _), cost(G0, K, Cost) }
        ->  { del_assoc(K, Live0, _, Live),
              spend(Budget, Cost, K)
            },
            eliminate_atom(K, G0, G, Touched),
            { foldl(cost_entry(G), Touched, Entries, []),
              foldl(heap_entry, Entries, Heap1, Heap)
            },
            eliminate(Heap, Live, G, Budget)
        ;   eliminate(Heap1, Live0, G0, Budget)      % stale entry
        )
    ;   []
    ).

spend(Budget, Cost, K) :-
    arg(1, Budget, Left0),
    Left is Left0 - Cost,
    (   Left < 0
    ->  throw(error(cplogic_error(cycle_too_large(K), cycle), _))
    ;   nb_setarg(1, Budget, Left)
    ).

eliminate_atom(K, G0, G, Touched) -->
    { rules_of(G0, K, Own),
      users_of(G0, K, Users0),
      ord_del_element(Users0, K, Users),
      % the atoms whose rules or uses change
      findall(J, ( member(H, Users), using(G0, K, H, Uses),
                   member(Set-_, Uses), member(J, Set) ), Js0)
    },
    solution_rules(Own, K),
    substitute(Users, K, Own, G0, G1),
    { G1 = g(Rules1, Users1),
      ( del_assoc(K, Rules1, _, Rules2) -> true ; Rules2 = Rules1 ),
      ( del_assoc(K, Users1, _, Users2) -> true ; Users2 = Users1 ),
      G = g(Rules2, Users2),
      findall(J, ( member(Set-_, Own), member(J, Set) ), Js1),
      append([Users, Js0, Js1], Touched0),
      sort(Touched0, Touched)
    }.

solution_rules([], _) --> [].
solution_rules([Set-Coef | Rules], K) -->
    { lits(Coef, L0),
      findall(pos(J), member(J, Set), L1),
      append(L0, L1, L)
    },
    [ rule([K-1.0], L, cycle) ],
    solution_rules(Rules, K).

substitute([], _, _, G, G) --> [].
substitute([H | Hs], K, Own, G0, G) -->
    { using(G0, K, H, Uses) },
    (   { Uses == [] }                   % eliminated, or no longer a user
    ->  { G1 = G0 }
    ;   { G0 = g(Rules0, Users),
          get_assoc(H, Rules0, Row0),
          foldl(drop_rule, Uses, Row0, Row),
          put_assoc(H, Rules0, Row, Rules1)
        },
        replace(Uses, H, K, Own, g(Rules1, Users), G1)
    ),
    substitute(Hs, K, Own, G1, G).

drop_rule(Set-_, Row0, Row) :-
    del_assoc(Set, Row0, _, Row).

replace([], _, _, _, G, G) --> [].
replace([SetH-CoefH | Uses], H, K, Own, G0, G) -->
    { ord_del_element(SetH, K, Rest) },
    through(Own, H, Rest, CoefH, G0, G1),
    replace(Uses, H, K, Own, G1, G).

through([], _, _, _, G, G) --> [].
through([SetK-CoefK | Own], H, Rest, CoefH, G0, G) -->
    { ord_union(Rest, SetK, Set) },
    (   { \+ ord_memberchk(H, Set), conjunction(CoefH, CoefK, Lits) }
    ->  { G0 = g(Rules, _),
          get_assoc(H, Rules, Row),
          ( get_assoc(Set, Row, Old) -> true ; Old = none )
        },
        disjunction(Old, Lits, New),
        { set_rule(H, Set, New, G0, G1) }
    ;   { G1 = G0 }      % needs its own head, or never holds
    ),
    through(Own, H, Rest, CoefH, G1, G).

lits(true, []).
lits(lit(L), [L]).

% Fails for a conjunction with A and \+A.
conjunction(C1, C2, Lits) :-
    lits(C1, L1),
    lits(C2, L2),
    append(L1, L2, L0),
    sort(L0, Lits),
    \+ ( memberchk(neg(A), Lits), memberchk(pos(A), Lits) ).

% Old or Lits, as a coefficient: a new atom when neither side is enough.
disjunction(Old, Lits, New) -->
    (   { Old == true ; Lits == [] }
    ->  { New = true }
    ;   { Old == none, Lits = [L] }
    ->  { New = lit(L) }
    ;   { fresh_atom(X), New = lit(pos(X)) },
        (   { Old = lit(L0) } -> [ rule([X-1.0], [L0], cycle) ] ; [] ),
        [ rule([X-1.0], Lits, cycle) ]
    ).
