:- module(cplogic_lpad,
          [ begin_lpad/0,               % start an LPAD program in this file
            end_lpad/0,                 % end it and make it the module's program
            lpad_load/1,                % +File
            lpad_load/2,                % +File, +Module
            lpad_load/3,                % +File, +Module, +Options
            prob/2,                     % :Goal, -Prob
            prob/3,                     % :Goal, +Evidence, -Prob
            prob/4,                     % :Goal, +Evidence, -Prob, +Options
            prob_all/2,                 % :Goal, -Answers
            prob_all/3,                 % :Goal, +Evidence, -Answers
            prob_all/4,                 % :Goal, +Evidence, -Answers, +Options
            prob_queries/1,             % :Answers
            prob_queries/2,             % :Answers, +Options
            lpad_queries/2,             % :Queries, -Evidence
            lpad_theory/2,              % :Dummy, -Theory: the module's theory object
            lpad_ground/2,              % :Atoms, -Theory: ground what Atoms need
            op(700, xfx, ::)            % P::Head
          ]).

/** <module> LPAD programs: annotated disjunctions with exact probabilities

A program is written between `:- begin_lpad.` and `:- end_lpad.`, or loaded
from a file of its own with lpad_load/1. Its clauses are

    H1:P1 ; ... ; Hn:Pn :- Body.     H:P.     H.     H :- Body.
    P1::H1 ; ... ; Pn::Hn :- Body.   P::H.

the two notations meaning the same and mixing freely. A probability is a
number or an arithmetic expression, and may use variables that the body
binds (`P::a(X) :- w(X, P).`). `null` as a head atom stands for "no atom".
A body is a goal: program atoms, `\+ G` and `not(G)`, conjunctions and
disjunctions of them, and calls to ordinary Prolog predicates (the program
defines no clause for them), which run while grounding. A disjunction or
negated conjunction over program atoms is an auxiliary atom of its own, so
that a probabilistic rule still makes one choice per grounding. `\+ G`
with variables that occur nowhere else in the clause means that G has no
solution. In a program, the facts

    query(Goal).     evidence(Goal).     evidence(Atom, true).     evidence(Atom, false).

are not clauses: they list the program's questions (lpad_queries/2,
prob_queries/1 and `bin/cplogic FILE`).

A ground program is a set of rules; a ground body atom that no rule causes
is false. Its meaning in each world (each choice of the rules) is the least
model of the chosen rules: positive cycles (reachability over a graph with
cycles, left recursion) are answered exactly. Negation through a cycle has
no such meaning and is an error naming the atoms of the cycle.

Queries ground only what they need: starting from the query and evidence
atoms, the ground instances of the clauses whose head can produce an atom
and whose body can hold are collected, cycles among them are rewritten into
acyclic rules (module cplogic_cycles), and the rules are added to the
module's theory object, whose atom table remembers which atoms are done. The
theory is kept across queries.

A query or evidence goal that is not a ground atom of the program becomes a
clause of its own, `'$cplogic_goal_N'(AnswerVars) :- Goal`, added to the
program once per goal (up to variable renaming): its atom holds in a world
exactly when the goal has a solution there. Auxiliary atoms and predicates
have names that start with `$cplogic`; they never appear in answers.

A program file from elsewhere is loaded with `lpad_load(File, Module,
[safe(true)])` (`bin/cplogic --safe`): then a body, query or evidence goal
that is not a program atom, and so runs as Prolog while grounding, must be
one that library(sandbox) accepts, or the file is refused with the goal and
its clause named.

Outside the language, and errors that name the clause: a program atom
inside findall/3, aggregate_all/3, forall/2, call/N or another meta-call,
an if-then-else over program atoms, and a head that is not ground once its
body is solved (not range-restricted).
*/

:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(error)).
:- use_module(library(option)).
:- use_module(library(readutil)).
:- use_module(library(assoc)).
:- use_module(library(ordsets)).
:- use_module(library(pairs)).
:- use_module(library(aggregate)).
:- use_module(cplogic_cycles).
:- use_module(cplogic_read).

:- meta_predicate
    prob(:, -),
    prob(:, +, -),
    prob(:, +, -, +),
    prob_all(:, -),
    prob_all(:, +, -),
    prob_all(:, +, -, +),
    prob_queries(:),
    prob_queries(:, +),
    lpad_queries(:, -),
    lpad_load(:),
    lpad_theory(:, -),
    lpad_ground(:, -).

% lpad_clause(Id, Module, Heads, Body, Where): Id is unique over all modules;
% Heads = [Atom-Prob, ...] without null atoms, Prob a float or an expression
% that the body binds; Body = [pos(A) | neg(A) | call(G), ...]; Where names
% the clause in messages.
:- dynamic lpad_clause/5.
% lpad_index(Key, Head, Id, Pos, Ground, Module): head atom Pos of clause Id
% is Head; Key is one of the hashes of head_keys/3. Ground is true for a
% clause without variables, which has a single grounding.
:- dynamic lpad_index/6.
:- dynamic lpad_key_count/3.        % Key, Count, Module: index entries of Key
:- dynamic lpad_pred/3.             % Module, Name, Arity: a program predicate
:- dynamic lpad_recursive/3.        % Module, Name, Arity: on a predicate cycle
:- dynamic lpad_query/3.            % Module, Goal, Where: a query/1 fact
:- dynamic lpad_evidence/3.         % Module, Literal, Where: an evidence fact
:- dynamic lpad_goal/3.             % Module, Key, Goal-Head: a goal's clause
:- dynamic lpad_pending/3.          % Module, Item, Where: being read
:- dynamic lpad_block_done/3.       % Module, File, Stream: the block of this load
:- dynamic lpad_second_block/1.     % Module: a second block is being dropped
:- dynamic lpad_safe/1.              % Module: its blocks are checked as safe(true)
:- dynamic lpad_loading/4.          % Key, Item, Where, VarNames: lpad_load/3 reading
:- dynamic lpad_reading/2.          % Module, File
:- dynamic lpad_read_error/1.       % Module: a clause of the block was refused
:- dynamic lpad_program/1.          % Module: it has a program
:- dynamic lpad_object/2.           % Module, Theory
:- dynamic lpad_rule/5.             % Hash, ClauseId, Heads, Lits, Module: added
:- dynamic lpad_done/2.             % ClauseId, Module: ground clause in the theory
:- dynamic lpad_collected/1.        % Rule: grounded, not yet in the theory
:- dynamic lpad_false/3.            % Hash, Atom, Module: Atom never holds
:- dynamic lpad_support/3.          % Hash, Atom, Supports: see decide_support/2

:- multifile prolog:message//1.
:- multifile user:term_expansion/2.
:- dynamic user:term_expansion/2.

                 /*******************************
                 *      READING A PROGRAM       *
                 *******************************/

%!  begin_lpad is det.
%
%   Clauses that follow, up to end_lpad/0, form the LPAD program of the
%   module being loaded.
begin_lpad :-
    prolog_load_context(module, M),
    (   prolog_load_context(source, File) -> true ; File = user ),
    (   prolog_load_context(stream, In) -> true ; In = none ),
    (   lpad_block_done(M, File, In)
    ->  % the clauses up to end_lpad are read and dropped
        assertz(lpad_reading(M, File)),
        assertz(lpad_read_error(M)),
        assertz(lpad_second_block(M)),
        (   source_location(_, Line) -> Where = File:Line ; Where = File ),
        throw(error(cplogic_error(second_block, Where), _))
    ;   retractall(lpad_block_done(M, File, _)),
        assertz(lpad_block_done(M, File, In))
    ),
    retractall(lpad_pending(M, _, _)),
    retractall(lpad_read_error(M)),
    retractall(lpad_reading(M, _)),
    assertz(lpad_reading(M, File)).

%!  end_lpad is det.
%
%   Makes the clauses read since begin_lpad/0 the module's program. When
%   one of them was refused, the previous program stays in force.
end_lpad :-
    prolog_load_context(module, M),
    retractall(lpad_reading(M, _)),
    findall(I-W, retract(lpad_pending(M, I, W)), Items),
    (   retract(lpad_second_block(M))
    ->  retractall(lpad_read_error(M))  % begin_lpad said why
    ;   retract(lpad_read_error(M))
    ->  print_message(error, cplogic(program_not_loaded(M)))
    ;   catch(( (   lpad_safe(M)
                ->  findall(I-W-[], member(I-W, Items), Named),
                    check_safe_program(M, Named)
                ;   true
                ),
                install_program(M, Items)
              ), E,
              print_message(error, E))
    ).

%!  lpad_safe_module(+Module) is det.
%
%   The begin_lpad/end_lpad programs of Module are checked as lpad_load/3
%   does with safe(true) (`bin/cplogic --safe` on a file with a block).
lpad_safe_module(M) :-
    must_be(atom, M),
    (   lpad_safe(M) -> true ; assertz(lpad_safe(M)) ).

user:term_expansion(Term, []) :-
    prolog_load_context(module, M),
    lpad_reading(M, _),
    Term \= (:- _),
    Term \= end_of_file,
    (   source_location(File, Line) -> Where = File:Line ; Where = Term ),
    catch(( parse_term(Term, Where, Item),
            assertz(lpad_pending(M, Item, Where))
          ),
          E,
          ( assertz(lpad_read_error(M)), print_message(error, E) )).

%!  lpad_load(+File) is det.
%!  lpad_load(+File, +Module) is det.
%!  lpad_load(+File, +Module, +Options) is det.
%
%   Reads an LPAD program from File and makes it the program of the calling
%   module (or of Module). Reads both ordinary program files and the theory
%   text that vorn_cp_theory_save/2 writes. On an error nothing changes;
%   every error in the program names its file and line. Options:
%
%     - safe(true): for a file from elsewhere. Every body goal (and query
%       or evidence goal) that would run as Prolog while grounding must be
%       one that library(sandbox) accepts; the first that is not is an
%       error naming the goal and its clause.
%
%   Directives in File are not run, except op/3, which holds in Module for
%   the clauses after it.
lpad_load(M:File) :-
    lpad_load(File, M, []).

lpad_load(File, M) :-
    lpad_load(File, M, []).

lpad_load(File, M, Options) :-
    must_be(atom, M),
    must_be(list, Options),
    option(safe(Safe), Options, false),
    must_be(boolean, Safe),
    (   is_of_type(text, File) -> true ; type_error(file_name, File) ),
    flag(cplogic_load, Key, Key + 1),
    op(700, xfx, M:(::)),               % the file is read with M's operators
    setup_call_cleanup(
        true,
        ( read_program(File, load_term(Key, M),
                       [variable_names(true), module(M)]),
          findall(I-W, lpad_loading(Key, I, W, _), Items),
          (   Safe == true
          ->  findall(I-W-Ns, lpad_loading(Key, I, W, Ns), Named),
              check_safe_program(M, Named)
          ;   true
          ),
          install_program(M, Items)
        ),
        retractall(lpad_loading(Key, _, _, _))).

% Each term is checked and stored as it is read, so that only the program
% itself, not the file's text, is held.
load_term(_, M, (:- D), _, _) :-
    !,
    (   nonvar(D), D = op(P, T, N)
    ->  op(P, T, M:N)
    ;   true
    ).
load_term(Key, _, Term, Where, Names) :-
    check_clause(Term, Where, Names),
    parse_term(Term, Where, Item),
    assertz(lpad_loading(Key, Item, Where, Names)).

% Safe mode: the goals that are not program atoms run as Prolog while
% grounding, so each must pass the sandbox.
% Items = [Item-Where-VarNames, ...].
check_safe_program(M, Items) :-
    findall(N/A, ( member(clause(Hs, _)-_-_, Items), member(H-_, Hs),
                   functor(H, N, A) ), Preds0),
    sort(Preds0, Preds),
    forall(member(Item-Where-Names, Items),
           (   item_goal(Item, G)
           ->  safe_goals(G, M, Preds, Where, Names)
           ;   true
           )).

item_goal(clause(_, B), B).
item_goal(query(Q), Q).
item_goal(evidence(E), E).

safe_goals(G, M, Preds, Where, Names) :-
    (   var(G)
    ->  true                            % bound by a query's answer
    ;   control_goal(G, Args)
    ->  forall(member(A, Args), safe_goals(A, M, Preds, Where, Names))
    ;   callable(G), functor(G, N, A), ord_memberchk(N/A, Preds)
    ->  true
    ;   G == true
    ->  true
    ;   check_safe_body_goal(M:G, Where, Names)
    ).

control_goal((A, B), [A, B]).
control_goal((A ; B), [A, B]).
control_goal((A -> B), [A, B]).
control_goal((A *-> B), [A, B]).
control_goal(\+ A, [A]).
control_goal(not(A), [A]).

                 /*******************************
                 *      CHECKING CLAUSES        *
                 *******************************/

% parse_term(+Term, +Where, -Item): Item is clause(Heads, RawBody),
% query(Goal) or evidence(Literal).
parse_term(Term, Where, Item) :-
    (   nonvar(Term), Term = query(Q)
    ->  program_goal(Q, query(Q), Where),
        Item = query(Q)
    ;   nonvar(Term), Term = evidence(E)
    ->  program_goal(E, evidence(E), Where),
        Item = evidence(E)
    ;   nonvar(Term), Term = evidence(A, V)
    ->  program_goal(A, evidence(A, V), Where),
        (   V == true -> Item = evidence(A)
        ;   V == false -> Item = evidence(\+ A)
        ;   lpad_error(bad_evidence_value(evidence(A, V)), Where)
        )
    ;   parse_clause(Term, Where, Heads, Body),
        Item = clause(Heads, Body)
    ).

program_goal(G, Fact, Where) :-
    (   callable(G) -> true ; lpad_error(bad_directive(Fact), Where) ).

% parse_clause(+Term, +Where, -Heads, -RawBody)
parse_clause(Term, Where, Heads, Body) :-
    (   Term = (Head :- Body0) -> true ; Head = Term, Body0 = true ),
    (   var(Head) -> lpad_error(bad_head(Head), Where) ; true ),
    head_list(Head, Where, Heads0),
    check_probabilities(Heads0, Where),
    exclude(null_head, Heads0, Heads),
    Body = Body0.

head_list(Head, Where, Heads) :-
    (   Head = (A ; B)
    ->  head_list(A, Where, HA),
        head_list(B, Where, HB),
        append(HA, HB, Heads)
    ;   Head = (Expr :: Atom)
    ->  head_atom(Atom, Where),
        probability(Expr, Where, P),
        Heads = [Atom-P]
    ;   Head = (Atom : Expr)
    ->  head_atom(Atom, Where),
        probability(Expr, Where, P),
        Heads = [Atom-P]
    ;   head_atom(Head, Where),
        Heads = [Head-1.0]
    ).

head_atom(Atom, Where) :-
    (   callable(Atom), \+ control(Atom), Atom \= (_::_)
    ->  true
    ;   lpad_error(bad_head(Atom), Where)
    ).

control((_,_)).
control((_;_)).
control((_->_)).
control((_*->_)).
control((_:-_)).
control(\+ _).
control(_:_).

% A ground probability is checked now; one with variables when the body
% has bound them (head_probabilities/3).
probability(Expr, Where, P) :-
    (   var(Expr)
    ->  P = Expr
    ;   ground(Expr)
    ->  probability_value(Expr, Where, P)
    ;   P = Expr
    ).

probability_value(Expr, Where, P) :-
    (   ground(Expr),
        catch(V is Expr, _, fail),
        number(V)
    ->  (   V < 0
        ->  lpad_error(negative_probability(Expr), Where)
        ;   P is float(V)
        )
    ;   lpad_error(bad_probability(Expr), Where)
    ).

check_probabilities(Heads, Where) :-
    pairs_values(Heads, Ps0),
    include(number, Ps0, Ps),
    sum_list(Ps, Sum),
    (   Sum > 1.0 + 1.0e-9
    ->  lpad_error(probabilities_above_one(Sum), Where)
    ;   true
    ).

null_head(null-_).

lpad_error(Culprit, Where) :-
    throw(error(cplogic_error(Culprit, Where), _)).

                 /*******************************
                 *      INSTALLING A PROGRAM    *
                 *******************************/

% install_program(+Module, +Items): Items = [Item-Where, ...] as parse_term/3
% gives them. The probabilistic predicates are those that some head
% defines; any other body goal is a call made while grounding. Everything
% is checked before the old program is dropped.
install_program(M, Items) :-
    findall(Hs-B-W, member(clause(Hs, B)-W, Items), Clauses0),
    findall(N/A, ( member(Hs-_-_, Clauses0), member(H-_, Hs),
                   functor(H, N, A) ), Preds0),
    sort(Preds0, Preds),
    list_to_assoc_set(Preds, PredSet),
    foldl(body_clauses(M, PredSet), Clauses0, Clauses, []),
    forget_program(M),
    reserve_auxiliary_names(Clauses),
    assertz(lpad_program(M)),
    findall(N/A, ( member(Hs-_-_, Clauses), member(H-_, Hs), functor(H, N, A) ), All0),
    sort(All0, All),
    forall(member(N/A, All), assertz(lpad_pred(M, N, A))),
    add_clauses(M, Clauses),
    recursive_predicates(M, Clauses),
    forall(member(query(Q)-W, Items), assertz(lpad_query(M, Q, W))),
    forall(member(evidence(E)-W, Items), assertz(lpad_evidence(M, E, W))).

% A saved theory holds the auxiliary atoms of another session: the names
% made from now on are above theirs, so that none is made twice.
reserve_auxiliary_names(Clauses) :-
    forall(( member(Hs-_-_, Clauses), member(H-_, Hs) ),
           (   H = '$cplogic_aux'(N), integer(N)
           ->  flag(cplogic_aux_atom, N0, max(N0, N + 1))
           ;   functor(H, Name, _),
               atom_concat('$cplogic_', Rest, Name),
               ( atom_concat(body_, Num, Rest) ; atom_concat(goal_, Num, Rest) ),
               atom_number(Num, N), integer(N)
           ->  flag(cplogic_aux_pred, N0, max(N0, N + 1))
           ;   true
           )).

list_to_assoc_set(Keys, Set) :-
    pairs_keys_values(Pairs, Keys, Keys),
    list_to_assoc(Pairs, Set).

% add_clauses(+M, +Clauses): stores Heads-Body-Where clauses and counts
% their index keys.
add_clauses(M, Clauses) :-
    foldl(store_clause(M), Clauses, Keys0, []),
    msort(Keys0, Keys),
    clumped(Keys, Counts),
    forall(member(K-C, Counts), add_key_count(K, C, M)).

add_key_count(K, C, M) :-
    (   retract(lpad_key_count(K, C0, M))
    ->  C1 is C0 + C
    ;   C1 = C
    ),
    assertz(lpad_key_count(K, C1, M)).

program_pred(M, G) :-
    callable(G),
    functor(G, N, A),
    lpad_pred(M, N, A).

                 /*******************************
                 *            BODIES            *
                 *******************************/

% body_clauses(+M, +Preds, +Clause, -Clauses, ?Tail): the clause with its
% body as a list of literals, and the auxiliary clauses that define the
% disjunctions and negated goals of the body.
body_clauses(M, Preds, Heads-Raw-Where, [Heads-Body-Where | Aux], Tail) :-
    Ctx = body(M, Preds, Where),
    pairs_keys_values(Heads, _, Probs),
    body_literals(Raw, Ctx, Heads-Probs, Body, [], Aux, Tail).

% body_literals(+Goal, +Ctx, +Outside, -Lits, ?LitsTail, -Aux, ?AuxTail):
% Outside holds the variables of the rest of the clause, which decide what
% an auxiliary atom shares with it.
body_literals(G, body(_, _, Where), _, _, _, _, _) :-
    var(G),
    !,
    lpad_error(variable_goal, Where).
body_literals(true, _, _, L, L, A, A) :- !.
body_literals((G1, G2), Ctx, Out, L0, L, A0, A) :-
    !,
    body_literals(G1, Ctx, Out-G2, L0, L1, A0, A1),
    body_literals(G2, Ctx, Out-G1, L1, L, A1, A).
body_literals(\+ G, Ctx, Out, L0, L, A0, A) :-
    !,
    negated_literal(G, Ctx, Out, L0, L, A0, A).
body_literals(not(G), Ctx, Out, L0, L, A0, A) :-
    !,
    negated_literal(G, Ctx, Out, L0, L, A0, A).
body_literals(G, Ctx, Out, L0, L, A0, A) :-
    Ctx = body(M, Preds, Where),
    (   prob_goal(G, Preds)
    ->  L0 = [pos(G) | L], A0 = A
    ;   \+ mentions_prob_goal(M, G, Preds)
    ->  L0 = [call(G) | L], A0 = A
    ;   G = (_;_), \+ if_then(G)
    ->  disjuncts(G, Gs),
        aux_clauses(Gs, G, Ctx, Out, Atom, A0, A),
        L0 = [pos(Atom) | L]
    ;   control(G)
    ->  lpad_error(unsupported_body(G), Where)
    ;   lpad_error(meta_call(G), Where)
    ).

if_then((_->_)).
if_then((_*->_)).
if_then((G;_)) :- nonvar(G), if_then(G).

disjuncts(G, Gs) :-
    (   nonvar(G), G = (A ; B), \+ if_then(G)
    ->  disjuncts(A, GA),
        disjuncts(B, GB),
        append(GA, GB, Gs)
    ;   Gs = [G]
    ).

% \+ G: a call when G has no program atom; a negated literal when G is a
% program atom whose variables the clause binds elsewhere; otherwise the
% negation of an auxiliary atom for "G has a solution".
negated_literal(G, body(_, _, Where), _, _, _, _, _) :-
    var(G),
    !,
    lpad_error(variable_goal, Where).
negated_literal(G, Ctx, Out, L0, L, A0, A) :-
    Ctx = body(M, Preds, _),
    (   \+ mentions_prob_goal(M, G, Preds)
    ->  L0 = [call(\+ G) | L], A0 = A
    ;   prob_goal(G, Preds),
        term_variables(G, Vs),
        term_variables(Out, OutVs),
        subset_eq(Vs, OutVs)
    ->  L0 = [neg(G) | L], A0 = A
    ;   aux_clauses([G], G, Ctx, Out, Atom, A0, A),
        L0 = [neg(Atom) | L]
    ).

subset_eq(Vs, Ws) :-
    forall(member(V, Vs), var_in(Ws, V)).

var_in(Vs, V) :-
    member(W, Vs),
    W == V,
    !.

% An auxiliary atom '$cplogic_body_N'(Shared), one deterministic clause per
% disjunct, Shared the variables of Goal that the rest of the clause has.
aux_clauses(Disjuncts, Goal, Ctx, Out, Atom, A0, A) :-
    term_variables(Goal, GVs),
    term_variables(Out, OutVs),
    include(var_in(OutVs), GVs, Shared),
    flag(cplogic_aux_pred, N, N + 1),
    format(atom(Name), '$cplogic_body_~w', [N]),
    Atom =.. [Name | Shared],
    foldl(aux_clause(Atom, Ctx), Disjuncts, A0, A).

% Each disjunct is a clause of its own, with variables of its own.
aux_clause(Atom, Ctx, D, [Clause | Aux0], Aux) :-
    copy_term(Atom-D, A1-D1),
    Ctx = body(_, _, Where),
    Clause = [A1-1.0]-Body-Where,
    body_literals(D1, Ctx, A1, Body, [], Aux0, Aux).

prob_goal(G, Preds) :-
    callable(G),
    functor(G, N, A),
    get_assoc(N/A, Preds, _).

% A goal that calls a program atom: through a control construct or as a
% meta-argument (findall/3, forall/2, call/N, ...). A meta-argument that is
% a variable is decided when it runs (call_goal/3).
mentions_prob_goal(_, G, _) :-
    var(G),
    !,
    fail.
mentions_prob_goal(_, G, Preds) :-
    prob_goal(G, Preds),
    !.
mentions_prob_goal(M, G, Preds) :-
    compound(G),
    (   control(G)
    ->  G =.. [_ | Args],
        member(Arg, Args),
        mentions_prob_goal(M, Arg, Preds)
    ;   catch(predicate_property(M:G, meta_predicate(MetaHead)), _, fail),
        arg(I, MetaHead, S),
        meta_arg(S, Extra),
        arg(I, G, Arg),
        extended_goal(Arg, Extra, Goal),
        mentions_prob_goal(M, Goal, Preds)
    ),
    !.

meta_arg(N, N) :- integer(N).
meta_arg(^, 0).
meta_arg(//, 2).

extended_goal(Arg, Extra, Goal) :-
    nonvar(Arg),
    strip_carets(Arg, G0),
    callable(G0),
    length(Vs, Extra),
    G0 =.. L0,
    append(L0, Vs, L),
    Goal =.. L.

strip_carets(G0, G) :-
    (   nonvar(G0), G0 = _^G1 -> strip_carets(G1, G) ; G = G0 ).

                 /*******************************
                 *     STORING AND INDEXING     *
                 *******************************/

% store_clause(+Module, +Clause, -Keys, ?Tail): asserts the clause under a
% fresh id and its head atoms in the index; Keys are the index keys used.
store_clause(M, Heads-Body-Where, Keys, Tail) :-
    flag(cplogic_lpad_clause, Id, Id + 1),
    assertz(lpad_clause(Id, M, Heads, Body, Where)),
    (   ground(Heads-Body) -> Ground = true ; Ground = false ),
    foldl(index_head(M, Id, Ground), Heads, 1-Keys, _-Tail).

index_head(M, Id, Ground, H-_, Pos-Keys, Pos1-Tail) :-
    Pos1 is Pos + 1,
    head_keys(M, H, HKeys),
    forall(member(K, HKeys), assertz(lpad_index(K, H, Id, Pos, Ground, M))),
    append(HKeys, Tail, Keys).

% head_keys(+Module, +Head, -Keys): the head is found under the key of its
% predicate and, for every argument, under the argument's value (its name
% and arity when compound; '$var' for a variable), so that a lookup can use
% the most selective bound argument of the atom it grounds.
head_keys(M, H, [PK | AKs]) :-
    functor(H, N, Ar),
    term_hash(k(M, N, Ar), PK),
    H =.. [_ | Args],
    foldl(arg_key(M, N, Ar), Args, AKs, 1, _).

arg_key(M, N, Ar, Arg, K, I, I1) :-
    I1 is I + 1,
    arg_value_key(Arg, V),
    term_hash(k(M, N, Ar, I, V), K).

arg_value_key(Arg, V) :-
    (   var(Arg) -> V = '$var'
    ;   atomic(Arg) -> V = Arg
    ;   functor(Arg, F, A), V = F/A
    ).

% Drops the module's program, its theory object and the library's tables of
% it (the user's tables stay).
forget_program(M) :-
    retractall(lpad_program(M)),
    retractall(lpad_clause(_, M, _, _, _)),
    retractall(lpad_index(_, _, _, _, _, M)),
    retractall(lpad_key_count(_, _, M)),
    retractall(lpad_pred(M, _, _)),
    retractall(lpad_recursive(M, _, _)),
    retractall(lpad_query(M, _, _)),
    retractall(lpad_evidence(M, _, _)),
    retractall(lpad_goal(M, _, _)),
    abolish_table_subgoals(cplogic_lpad:possible(M, _)),
    forget_theory(M).

forget_theory(M) :-
    forall(retract(lpad_object(M, T)), catch(cplogic:pelm_free(T), _, true)),
    retractall(lpad_rule(_, _, _, _, M)),
    retractall(lpad_false(_, _, M)),
    retractall(lpad_done(_, M)).

% clause_for_head(+Module, ?Atom, -Id, -Pos, -Ground): head atom Pos of
% clause Id unifies with Atom (a hash collision is filtered by unifying).
clause_for_head(M, A, Id, Pos, Ground) :-
    lookup_keys(M, A, Keys),
    member(K, Keys),
    lpad_index(K, A, Id, Pos, Ground, M).

lookup_keys(M, A, Keys) :-
    functor(A, N, Ar),
    A =.. [_ | Args],
    foldl(bound_arg_keys(M, N, Ar), Args, 1-Cands, _-[]),
    (   Cands == []
    ->  term_hash(k(M, N, Ar), PK),
        Keys = [PK]
    ;   keysort(Cands, [_-Keys | _])
    ).

% An argument with a value offers its value's key and the variable key,
% with the number of entries both hold.
bound_arg_keys(M, N, Ar, Arg, I-Cands, I1-Tail) :-
    I1 is I + 1,
    (   var(Arg)
    ->  Cands = Tail
    ;   arg_value_key(Arg, V),
        term_hash(k(M, N, Ar, I, V), K1),
        term_hash(k(M, N, Ar, I, '$var'), K2),
        key_count(K1, M, C1),
        key_count(K2, M, C2),
        C is C1 + C2,
        Cands = [C-[K1, K2] | Tail]
    ).

key_count(K, M, C) :-
    (   lpad_key_count(K, C0, M) -> C = C0 ; C = 0 ).

% Predicates on a cycle of the predicate dependency graph: only their ground
% atoms can be on a ground cycle.
recursive_predicates(M, Clauses) :-
    findall(P-Q, ( member(Hs-Body-_, Clauses), member(H-_, Hs),
                   member(L, Body), L \= call(_),
                   arg(1, L, B), pred_key(H, P), pred_key(B, Q) ), Edges0),
    sort(Edges0, Edges),
    cyclic_vertices(Edges, Recursive),
    forall(member(N/A, Recursive), assertz(lpad_recursive(M, N, A))).

pred_key(G, N/A) :-
    functor(G, N, A).

                 /*******************************
                 *           QUERIES            *
                 *******************************/

%!  prob(:Goal, -Prob) is det.
%!  prob(:Goal, +Evidence, -Prob) is det.
%!  prob(:Goal, +Evidence, -Prob, +Options) is det.
%
%   Prob is the probability that Goal has a solution, given Evidence. Goal
%   is a ground atom of the program or any goal over program atoms and
%   ordinary Prolog: conjunctions, disjunctions, `\+`, variables (read as
%   "for some value"). Evidence is a list of goals observed true and
%   `\+ Goal` observed false, typically ground atoms. Options:
%   method(cf|tables|cpts|cfme), elimination(cst|absorption),
%   max_table_entries(N) (the largest table a query may build, or inf;
%   see cplogic_prob/5) and progress(Bool) (with true, grounding and the
%   query report on standard error when they take more than a second).
%   Evidence of probability 0 raises contradictory_evidence(Evidence).
prob(Q, P) :-
    prob(Q, [], P, []).

prob(Q, E, P) :-
    prob(Q, E, P, []).

prob(M:Q, Evidence, P, Options) :-
    in_program(M, Evidence, Options, query_program(Q, Evidence), P).

% in_program(+M, +Evidence, +Options, :Goal, -Result): call(Goal, Module,
% Settings, Result) on M's program, under the library's mutex.
in_program(M, Evidence, Options, Goal, Result) :-
    program_module(M, PM),
    must_be(list, Evidence),
    query_options(Options, Settings),
    % the core names the evidence in its own terms; the error names it as
    % the caller wrote it
    catch(with_mutex(cplogic_lpad, call(Goal, PM, Settings, Result0)),
          error(cplogic_error(contradictory_evidence(_), evidence), _),
          throw(error(cplogic_error(contradictory_evidence(Evidence), evidence), _))),
    Result = Result0.

%!  prob_all(:Goal, -Answers) is det.
%!  prob_all(:Goal, +Evidence, -Answers) is det.
%!  prob_all(:Goal, +Evidence, -Answers, +Options) is det.
%
%   Answers is the list Instance-Prob, in the standard order of Instance,
%   of every instance of Goal whose probability given Evidence is above 0.
%   An instance binds the variables of Goal outside negations; variables
%   inside a negation stay (`\+ G` with them means G has no solution). A
%   goal without such variables has the one answer Goal-Prob, whatever
%   Prob is. Options and errors as prob/4.
prob_all(G, Answers) :-
    prob_all(G, [], Answers, []).

prob_all(G, E, Answers) :-
    prob_all(G, E, Answers, []).

prob_all(M:G, Evidence, Answers, Options) :-
    in_program(M, Evidence, Options, all_answers(G, Evidence), Answers).

%!  lpad_queries(:Queries, -Evidence) is det.
%
%   Queries are the goals of the program's query/1 facts and Evidence the
%   literals of its evidence/1,2 facts (`\+ A` for evidence(A, false)), in
%   the order of the program.
lpad_queries(M:Queries, Evidence) :-
    program_module(M, PM),
    findall(Q, lpad_query(PM, Q, _), Queries),
    findall(E, lpad_evidence(PM, E, _), Evidence).

%!  prob_queries(:Answers) is det.
%!  prob_queries(:Answers, +Options) is det.
%
%   Answers the program's query/1 facts under its evidence facts: Answers
%   is the list Goal-Prob in the order of the queries, a query with
%   variables giving its instances as prob_all/4 does.
prob_queries(MA) :-
    prob_queries(MA, []).

prob_queries(M:Answers, Options) :-
    lpad_queries(M:Queries, Evidence),
    foldl(query_answers(M, Evidence, Options), Queries, Answers, []).

query_answers(M, Evidence, Options, Q, Answers, Tail) :-
    prob_all(M:Q, Evidence, L, Options),
    append(L, Tail, Answers).

% Settings: s(Method, Elimination, CoreOptions, Progress).
query_options(Options, s(Method, Elim, CoreOptions, Progress)) :-
    must_be(list, Options),
    option(method(Method), Options, cf),
    option(elimination(Elim), Options, cst),
    option(progress(Progress), Options, false),
    must_be(oneof([cf, tables, cpts, cfme]), Method),
    must_be(oneof([cst, absorption]), Elim),
    must_be(boolean, Progress),
    (   option(max_table_entries(Max), Options)
    ->  (   Max == inf -> true ; must_be(positive_integer, Max) ),
        Limit = [max_table_entries(Max)]
    ;   Limit = []
    ),
    (   Progress == true -> CoreOptions = [progress(true) | Limit] ; CoreOptions = Limit ).

program_module(M, M) :-
    lpad_program(M),
    !.
program_module(M, _) :-
    throw(error(cplogic_error(no_program(M), M), _)).

query_program(Goal, Evidence, M, Settings, P) :-
    goal_atom(M, Goal, bad_query(Goal), Q),
    maplist(evidence_term(M), Evidence, EvTerms),
    findall(A, member(e(A, _), EvTerms), EvAtoms),
    theory_object(M, T),
    ground_program(M, T, [Q | EvAtoms], Settings),
    theory_prob(T, Q, EvTerms, Settings, P).

theory_prob(T, Q, EvTerms, s(Method, Elim, CoreOptions, _), P) :-
    cplogic:vorn_cp_theory_set_settings(T, 1, 0, Method, Elim, none),
    cplogic:cplogic_prob(T, Q, EvTerms, P, CoreOptions).

% goal_atom(+M, +Goal, +Culprit, -Atom): the atom whose probability is
% that of Goal: Goal itself for a ground program atom, otherwise the head
% of Goal's own clause.
goal_atom(M, Goal, Culprit, Atom) :-
    (   callable(Goal)
    ->  true
    ;   throw(error(cplogic_error(Culprit, query), _))
    ),
    (   ground(Goal), program_pred(M, Goal)
    ->  Atom = Goal
    ;   goal_clause(M, Goal, [], Atom)
    ).

evidence_term(M, L, e(A, V)) :-
    (   nonvar(L), ( L = (\+ G) ; L = not(G) )
    ->  V = 0
    ;   G = L, V = 1
    ),
    goal_atom(M, G, bad_evidence(L), A).

% goal_clause(+M, +Goal, +Vars, -Head): Head = '$cplogic_goal_N'(Vars)
% with the clause Head :- Goal in the program; one clause per goal and
% answer variables, up to renaming.
goal_clause(M, Goal, Vars, Head) :-
    variant_sha1(Goal-Vars, Key),
    (   lpad_goal(M, Key, Stored)
    ->  copy_term(Stored, Goal-Vars-Head)
    ;   copy_term(Goal-Vars, G1-V1),
        flag(cplogic_aux_pred, N, N + 1),
        format(atom(Name), '$cplogic_goal_~w', [N]),
        H1 =.. [Name | V1],
        findall(N1/A1, lpad_pred(M, N1, A1), Preds0),
        list_to_assoc_set(Preds0, Preds),
        body_clauses(M, Preds, [H1-1.0]-G1-goal(Goal), Clauses, []),
        setof(HN/HA, Hs^B^W^H^P^( member(Hs-B-W, Clauses), member(H-P, Hs),
                                   functor(H, HN, HA) ), New),
        forall(member(HN/HA, New), assertz(lpad_pred(M, HN, HA))),
        add_clauses(M, Clauses),
        assertz(lpad_goal(M, Key, G1-V1-H1)),
        copy_term(G1-V1-H1, Goal-Vars-Head)
    ).

% The variables an instance binds: those of Goal outside negations.
answer_variables(Goal, Vars) :-
    positive_part(Goal, Pos),
    term_variables(Pos, Vars).

positive_part(G, P) :-
    (   var(G) -> P = G
    ;   G = (\+ _) -> P = []
    ;   G = not(_) -> P = []
    ;   G = (A, B) -> positive_part(A, PA), positive_part(B, PB), P = PA-PB
    ;   G = (A ; B) -> positive_part(A, PA), positive_part(B, PB), P = PA-PB
    ;   G = (A -> B) -> positive_part(A, PA), positive_part(B, PB), P = PA-PB
    ;   P = G
    ).

all_answers(Goal, Evidence, M, Settings, Answers) :-
    (   callable(Goal) -> true ; throw(error(cplogic_error(bad_query(Goal), query), _)) ),
    answer_variables(Goal, Vars),
    maplist(evidence_term(M), Evidence, EvTerms),
    findall(A, member(e(A, _), EvTerms), EvAtoms),
    theory_object(M, T),
    (   Vars == []
    ->  goal_atom(M, Goal, bad_query(Goal), Q),
        ground_program(M, T, [Q | EvAtoms], Settings),
        theory_prob(T, Q, EvTerms, Settings, P),
        Answers = [Goal-P]
    ;   goal_clause(M, Goal, Vars, Head),
        findall(Head, possible(M, Head), Heads0),
        sort(Heads0, Heads),
        (   member(H, Heads), \+ ground(H)
        ->  throw(error(cplogic_error(unbound_answer(Goal), query), _))
        ;   true
        ),
        append(Heads, EvAtoms, ToGround),
        ground_program(M, T, ToGround, Settings),
        findall(Instance-P,
                ( member(H, Heads),
                  theory_prob(T, H, EvTerms, Settings, P),
                  P > 0.0,
                  H =.. [_ | Values],
                  copy_term(Vars-Goal, Values-Instance)
                ),
                Answers0),
        sort(Answers0, Answers)
    ).

%!  lpad_theory(:Dummy, -Theory) is det.
%
%   The theory object of the calling module's program (created when absent),
%   for use with the vorn_cp_theory_* predicates.
lpad_theory(M:_, T) :-
    program_module(M, PM),
    with_mutex(cplogic_lpad, theory_object(PM, T)).

%!  lpad_ground(:Atoms, -Theory) is det.
%
%   Adds to the module's theory object every grounding that the ground atoms
%   in the list Atoms need.
lpad_ground(M:Atoms, T) :-
    program_module(M, PM),
    must_be(list, Atoms),
    maplist(check_ground_atom, Atoms),
    with_mutex(cplogic_lpad,
               ( theory_object(PM, T),
                 ground_program(PM, T, Atoms, s(cf, cst, [], false)) )).

check_ground_atom(A) :-
    (   ground(A), callable(A), \+ control(A)
    ->  true
    ;   throw(error(cplogic_error(bad_query(A), query), _))
    ).

theory_object(M, T) :-
    lpad_object(M, T),
    !.
theory_object(M, T) :-
    cplogic:pelm_new(vorn_cp_theory, T),
    assertz(lpad_object(M, T)).

                 /*******************************
                 *           GROUNDING          *
                 *******************************/

% ground_program(+Module, +Theory, +Atoms, +Settings): adds the ground rules
% that Atoms need. The rules are collected first (in the database, so that a
% long chain costs no stack); rules that need an atom that can never hold
% are dropped; when the walk met a cycle, the cyclic components are
% rewritten into acyclic rules. On an error the theory is dropped: it may
% hold part of a grounding.
ground_program(M, T, Atoms, Settings) :-
    arg(4, Settings, Progress),
    get_time(Start),
    State = walk(false, Progress, Start, Start, 0, 0),
    catch(( walk([frame(root, Atoms)], M, T, State),
            (   arg(1, State, true)
            ->  findall(R, ( retract(lpad_collected(R0)), useful_rule(M, R0, R) ), Rules),
                acyclic_rules(Rules, Acyclic),
                maplist(add_rule(T), Acyclic)
            ;   forall(( retract(lpad_collected(R0)), useful_rule(M, R0, R) ), add_rule(T, R))
            ),
            progress_done(State)
          ),
          E,
          ( retractall(lpad_collected(_)),
            retractall(lpad_support(_, _, _)),
            forget_theory(M),
            throw(E) )).

add_rule(T, rule(Heads, Lits, _)) :-
    maplist(head_term, Heads, HTerms),
    maplist(body_term, Lits, BTerms),
    cplogic:vorn_cp_theory_add_event(T, event(HTerms, BTerms)).

% A rule whose body needs an atom that never holds is left out, and a
% negated literal on such an atom is true: false atoms would otherwise stay
% in the network as variables that tie their neighbours together.
useful_rule(M, rule(Heads, Lits0, Where), rule(Heads, Lits, Where)) :-
    \+ ( member(pos(A), Lits0), never_holds(M, A) ),
    exclude(negated_false(M), Lits0, Lits).

negated_false(M, neg(A)) :-
    never_holds(M, A).

never_holds(M, A) :-
    term_hash(A, H),
    lpad_false(H, A, M).

% A depth-first walk over the ground atoms with an explicit stack, so that
% the depth of the program costs no Prolog recursion. The theory's atom
% table marks an atom 1 from its expansion until all it depends on is done,
% then 2: meeting a 1 is meeting an atom on the current path, a cycle.
% When an atom is done and none of its rules is free of atoms that never
% hold (atoms on the current path may hold), it never holds either.
% State = walk(Cyclic, Progress, Start, LastReport, Atoms, Rules).
walk([], _, _, _).
walk([frame(A, Children) | Stack], M, T, State) :-
    (   Children = [C | Cs]
    ->  cplogic:vorn_cp_theory_atom_in_table(T, C, Status),
        (   Status =:= 2
        ->  walk([frame(A, Cs) | Stack], M, T, State)
        ;   Status =:= 0
        ->  expand_atom(M, C, Next, NRules),
            progress(State, NRules),
            walk([frame(C, Next), frame(A, Cs) | Stack], M, T, State)
        ;   nb_setarg(1, State, true),
            walk([frame(A, Cs) | Stack], M, T, State)
        )
    ;   (   Stack == []
        ->  true
        ;   cplogic:vorn_cp_theory_atom_table_success(T, A),
            decide_support(M, A),
            walk(Stack, M, T, State)
        )
    ).

% lpad_support(Hash, Atom, Supports) is kept in the database, not on the
% walk's stack, and only for an atom whose every rule has a positive body
% atom: Supports are these atoms, a list per rule.
decide_support(M, A) :-
    term_hash(A, H),
    (   retract(lpad_support(H, A, Sup))
    ->  (   member(Atoms, Sup), \+ ( member(B, Atoms), never_holds(M, B) )
        ->  true
        ;   assertz(lpad_false(H, A, M))
        )
    ;   true
    ).

% expand_atom(+M, +Atom, -Next, -Count): collects the Count ground rules
% with Atom in their head; Next are the atoms of their bodies and, for the
% predicates on a cycle, their other head atoms: every rule in the theory
% then has all of its head atoms expanded, so a later query never finds a
% cycle through rules that are already in the theory.
expand_atom(M, A, Next, NRules) :-
    findall(Rule-New, rule_for_atom(M, A, Rule, New), Rules),
    forall(member(Rule-true, Rules), assertz(lpad_collected(Rule))),
    aggregate_all(count, member(_-true, Rules), NRules),
    (   member(rule(_, Fact, _)-_, Rules), \+ memberchk(pos(_), Fact)
    ->  true
    ;   findall(Ps, ( member(rule(_, Ls, _)-_, Rules),
                      findall(P, member(pos(P), Ls), Ps) ), Sup),
        term_hash(A, H),
        assertz(lpad_support(H, A, Sup))
    ),
    findall(B, ( member(rule(Heads, Lits, _)-_, Rules),
                 (   member(L, Lits), arg(1, L, B)
                 ;   Heads = [_, _ | _],
                     member(B-_, Heads), B \== A,
                     functor(B, N, Ar), lpad_recursive(M, N, Ar)
                 ) ),
            Next).

% rule_for_atom(+M, +A, -Rule, -New): the ground rules with A in their head;
% New is false for a rule that another head atom added before, which still
% gives A's dependencies (so that the walk meets every cycle).
rule_for_atom(M, A, Rule, New) :-
    clause_for_head(M, A, Id, Pos, Ground),
    (   Ground == true
    ->  lpad_clause(Id, M, Heads, Body, Where),
        (   lpad_done(Id, M)
        ->  New = false,
            include(literal, Body, Lits),
            Rule = rule(Heads, Lits, Where)
        ;   New = true,
            assertz(lpad_done(Id, M)),
            % every solution of a ground body gives the same rule
            once(ground_rule(M, Id, Heads, Body, Where, ground, Rule))
        )
    ;   lpad_clause(Id, M, Heads, Body, Where),
        nth1(Pos, Heads, A-_),
        ground_rule(M, Id, Heads, Body, Where, New, Rule)
    ).

literal(pos(_)).
literal(neg(_)).

% Every way the body can hold gives one ground rule. Substitutions of a
% clause with variables that give the same rule (head atoms with their
% pooled probabilities, set of body literals) add it once.
ground_rule(M, Id, Heads0, Body, Where, New, rule(Heads, Lits, Where)) :-
    solve_body(Body, M, Where, Lits0),
    head_probabilities(Heads0, Where, Heads1),
    (   ground(Heads1)
    ->  true
    ;   pairs_keys(Heads1, As),
        throw(error(cplogic_error(nonground_head(As), Where), _))
    ),
    (   ground(Lits0)
    ->  true
    ;   throw(error(cplogic_error(nonground_body(Lits0), Where), _))
    ),
    sort(Lits0, Lits),
    consistent_body(Lits),
    merge_heads(Heads1, Heads),
    (   New == ground
    ->  true
    ;   term_hash(Id-Heads-Lits, Hash),
        (   lpad_rule(Hash, Id, Heads, Lits, M)
        ->  New = false
        ;   assertz(lpad_rule(Hash, Id, Heads, Lits, M)),
            New = true
        )
    ).

% Probabilities that the body bound are checked now.
head_probabilities(Heads0, Where, Heads) :-
    (   forall(member(_-P, Heads0), number(P))
    ->  Heads = Heads0
    ;   maplist(head_probability(Where), Heads0, Heads),
        check_probabilities(Heads, Where)
    ).

head_probability(Where, A-E, A-P) :-
    (   number(E) -> P = E ; probability_value(E, Where, P) ).

% The positive literals that are ground before the body runs are marked, so
% that the others can be told from them once the body has bound them.
solve_body(Body, M, Where, Lits) :-
    maplist(mark_given, Body, Marked),
    solve_marked(Marked, M, Where, Lits).

mark_given(L, L-Given) :-
    (   L = pos(A), ground(A) -> Given = true ; Given = false ).

solve_marked([], _, _, []).
solve_marked([L-Given | Ls], M, Where, Lits) :-
    solve_literal(L, Given, M, Where, Lits, Tail),
    solve_marked(Ls, M, Where, Tail).

% A positive literal that was ground from the start needs no proof: an atom
% that nothing causes is false in the theory. One with variables is
% enumerated over the atoms that can hold. One that the body made ground is
% checked the same way unless its predicate is recursive (a deep chain of
% tabled calls): otherwise a body that enumerates X then asks edge(X, y)
% would ground an atom for every X, however few edges there are.
solve_literal(pos(A), Given, M, _, [pos(A) | T], T) :-
    !,
    (   ground(A)
    ->  (   Given == true
        ->  true
        ;   functor(A, N, Ar), lpad_recursive(M, N, Ar)
        ->  true
        ;   possible(M, A)
        ->  true
        )
    ;   possible(M, A)
    ).
solve_literal(L, _, M, Where, Lits, T) :-
    solve_literal(L, M, Where, Lits, T).

solve_literal(neg(A), _, Where, [neg(A) | T], T) :-
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_negation(\+ A), Where), _))
    ).
solve_literal(call(G), M, Where, T, T) :-
    call_goal(M, G, Where).

% A sorted body: neg(_) literals first, then pos(_), each block sorted by
% atom. A body with A and \+A never holds.
consistent_body(Lits) :-
    neg_pos(Lits, Negs, Poss),
    ord_disjoint(Negs, Poss).

neg_pos([neg(A) | Ls], [A | Ns], Ps) :- !, neg_pos(Ls, Ns, Ps).
neg_pos(Ls, [], Ps) :- maplist(arg(1), Ls, Ps).

% Equal atoms in one head pool their probabilities; the head is sorted, so
% substitutions that give the same atoms in another order give one rule.
merge_heads(Heads0, Heads) :-
    msort(Heads0, Sorted),
    pool_heads(Sorted, Heads).

pool_heads([], []).
pool_heads([A-P | Rest], Heads) :-
    pool_heads(Rest, A, P, Heads).

pool_heads([], A, P, [A-P]).
pool_heads([B-Q | Rest], A, P, Heads) :-
    (   B == A
    ->  S is P + Q,
        pool_heads(Rest, A, S, Heads)
    ;   Heads = [A-P | Heads1],
        pool_heads(Rest, B, Q, Heads1)
    ).

head_term(A-P, h(A, P)).

body_term(pos(A), A).
body_term(neg(A), \+ A).

%   possible(+Module, ?Atom): Atom has a derivation when negated literals
%   are ignored, so it is true in some world. Tabled, so that recursive
%   programs terminate.
:- table possible/2.

possible(M, A) :-
    clause_for_head(M, A, Id, Pos, _),
    lpad_clause(Id, M, Heads, Body, Where),
    nth1(Pos, Heads, A-P),
    (   number(P)
    ->  P > 0.0,
        possible_body(Body, M, Where)
    ;   possible_body(Body, M, Where),
        probability_value(P, Where, V),
        V > 0.0
    ),
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_head([A]), Where), _))
    ).

possible_body([], _, _).
possible_body([L | Ls], M, Where) :-
    possible_literal(L, M, Where),
    possible_body(Ls, M, Where).

possible_literal(pos(A), M, _) :- possible(M, A).
possible_literal(neg(_), _, _).
possible_literal(call(G), M, Where) :- call_goal(M, G, Where).

% A goal whose predicate neither the program nor Prolog defines is an atom
% that nothing causes: false. A program atom that a meta-call reaches is
% outside the language: an error, not a silent failure.
call_goal(M, \+ G, Where) :-
    !,
    \+ call_goal(M, G, Where).
call_goal(M, G, Where) :-
    (   predicate_property(M:G, defined)
    ->  catch(call(M:G), error(existence_error(procedure, PI), Ctx),
              program_call(M, G, PI, Ctx, Where))
    ;   fail
    ).

program_call(M, G, PI, Ctx, Where) :-
    (   PI = _:N/A -> true ; PI = N/A ),
    (   lpad_pred(M, N, A)
    ->  throw(error(cplogic_error(meta_call(G), Where), _))
    ;   throw(error(existence_error(procedure, PI), Ctx))
    ).

% Grounding that runs for more than a second reports every second.
progress(State, NRules) :-
    arg(5, State, N0),
    N is N0 + 1,
    nb_setarg(5, State, N),
    arg(6, State, K0),
    K is K0 + NRules,
    nb_setarg(6, State, K),
    (   arg(2, State, true), N mod 256 =:= 0
    ->  get_time(Now),
        arg(3, State, Start),
        arg(4, State, Last),
        (   Now - Start > 1.0, Now - Last > 1.0
        ->  nb_setarg(4, State, Now),
            Secs is Now - Start,
            format(user_error, "% cplogic: grounding, ~D atoms expanded, ~D rules, ~1f s~n",
                   [N, K, Secs])
        ;   true
        )
    ;   true
    ).

progress_done(State) :-
    (   arg(2, State, true), arg(4, State, Last), arg(3, State, Start), Last > Start
    ->  get_time(Now),
        Secs is Now - Start,
        arg(5, State, N),
        arg(6, State, K),
        format(user_error, "% cplogic: grounded ~D atoms, ~D rules in ~1f s~n", [N, K, Secs])
    ;   true
    ).

                 /*******************************
                 *           MESSAGES           *
                 *******************************/

prolog:message(error(cplogic_error(Culprit, Where), _)) -->
    where(Where),
    culprit(Culprit).
prolog:message(cplogic(program_not_loaded(M))) -->
    [ 'LPAD program of module ~q not loaded: it has errors; the previous program stays in force'-[M] ].

where(File:Line) --> { atom(File), integer(Line) }, !, [ '~w:~w: '-[File, Line] ].
where(query) --> !.
where(evidence) --> !.
where(cycle) --> !.
where(goal(G)) --> !, [ 'query ~q: '-[G] ].
where(M) --> { atom(M) }, !.
where(Clause) --> [ 'in clause ~q: '-[Clause] ].

quoted(T, S) :-
    format(string(S), "~q", [T]).

culprit(bad_head(H)) --> [ 'head ~q is not an atom or compound term'-[H] ].
culprit(bad_probability(P)) --> [ 'probability ~q is not a number'-[P] ].
culprit(negative_probability(P)) --> [ 'probability ~q is negative'-[P] ].
culprit(probabilities_above_one(S)) -->
    [ 'the probabilities of the head sum to ~w, above 1'-[S] ].
culprit(variable_goal) --> [ 'a body goal is a variable' ].
culprit(unsupported_body(G)) -->
    [ '~q: an if-then-else over program atoms is not supported'-[G] ].
culprit(meta_call(G)) -->
    [ '~q calls program atoms through a meta-call (findall/3, aggregate_all/3, call/N, ...): not supported; write them as body literals'-[G] ].
culprit(nonground_negation(L)) -->
    [ 'negated literal ~q is not ground when it is reached'-[L] ].
culprit(nonground_head(As)) -->
    [ 'head ~q is not ground after its body was solved (not range-restricted)'-[As] ].
culprit(nonground_body(Ls)) -->
    [ 'body literals ~q are not ground after the body was solved'-[Ls] ].
culprit(bad_query(Q)) --> [ 'query ~q is not a goal'-[Q] ].
culprit(bad_evidence(E)) -->
    [ 'evidence ~q is not a goal or \\+ of one'-[E] ].
culprit(bad_directive(F)) --> [ '~q: the argument is not a goal'-[F] ].
culprit(bad_evidence_value(F)) --> [ '~q: the value is neither true nor false'-[F] ].
culprit(unbound_answer(G)) -->
    [ 'query ~q: a solution leaves an answer variable unbound'-[G] ].
culprit(contradictory_evidence(Ls)) -->
    { maplist(quoted, Ls, Ss),
      atomic_list_concat(Ss, ', ', Text) },
    [ 'the evidence ~w is contradictory: its probability is 0'-[Text] ].
culprit(negation_in_cycle([H, B | Rest])) -->
    [ 'negation through a cycle of atoms ~q: a rule for ~q has \\+ ~q, which depends on ~q'-[[H, B | Rest], H, B, H] ].
culprit(negation_in_cycle([H])) -->
    [ 'negation through a cycle: a rule for ~q has \\+ ~q'-[H, H] ].
culprit(cycle_too_large(A)) -->
    [ 'the cycle through ~q is too large to rewrite: its rules use several atoms of the cycle each (non-linear recursion), and replacing them multiplies the rules'-[A] ].
culprit(no_program(M)) -->
    [ 'module ~q has no LPAD program (use begin_lpad/end_lpad or lpad_load/1)'-[M] ].
