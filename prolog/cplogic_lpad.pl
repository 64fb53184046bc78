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

% Arithmetic compiled inline (the flag holds for this file only).
:- set_prolog_flag(optimise, true).

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

% A program has a key of its own (an integer), so that a program being read
% is built beside the one in force and replaces it only once it is complete:
% a refused program leaves the previous one as it was.
:- dynamic lpad_program/2.          % Module, Key: the program in force
:- dynamic lpad_module/2.           % Key, Module: whose program Key is
% A clause is c(Id, Heads, Body, Where, Kind): Heads = [Atom-Prob, ...]
% without null atoms, Prob a float or an expression that the body binds;
% Where names the clause in messages; Id is unique over all programs for a
% clause of several head atoms or with variables (0 for the others). Kind:
%   open:   Body = [pos(A) | neg(A) | call(G), ...], with variables;
%   ground: the same without variables, with calls to run once;
%   rule:   without variables or calls, Body = r(Merged, Negs, Poss), the
%           rule's pooled head (`same` when it is Heads) and the sorted
%           atoms of its negative and positive literals;
%   never:  as rule, but the body has an atom and its negation.
% lpad_pred(Key, Name, Arity): a program predicate. Its head atoms are the
% clauses lpad_head(Name, Key, Ref, Pos, Arg1, ..., ArgN) of the predicate
% lpad_head/(N+4), one per arity: the arguments are arguments of the
% clause, so that SWI-Prolog's just-in-time indexes find the heads by the
% name and any bound argument. Ref is the clause itself when it has one
% head atom, otherwise its Id, and lpad_clause(Id, Key, Clause) holds it.
% A clause of one head atom A:P is stored shorter when it is a ground fact,
% f(P, Where), or a rule worked out at install, s(P, Negs, Poss, Where).
:- dynamic lpad_clause/3.
:- dynamic lpad_pred/3.
:- dynamic lpad_head_table/1.       % Arity: lpad_head/(Arity+4) is declared
:- dynamic lpad_recursive/3.        % Key, Name, Arity: on a predicate cycle
:- dynamic lpad_recursion/1.        % Key: lpad_recursive/3 is known
:- dynamic lpad_query/3.            % Key, Goal, Where: a query/1 fact
:- dynamic lpad_evidence/3.         % Key, Literal, Where: an evidence fact
:- dynamic lpad_goal/3.             % Key, VariantKey, Goal-Head: a goal's clause
:- dynamic lpad_staging/1.          % Key: items wait for the predicate set
:- dynamic lpad_staged_pred/3.      % Key, Name, Arity: a waiting item has it in its head
:- dynamic lpad_load_safe/1.        % Key: checked as safe(true)
:- dynamic lpad_block_done/3.       % Module, File, Stream: the block of this load
:- dynamic lpad_second_block/1.     % Module: a second block is being dropped
:- dynamic lpad_safe/1.             % Module: its blocks are checked as safe(true)
:- dynamic lpad_reading/2.          % Module, Key (none: dropped): a block is read
:- dynamic lpad_read_error/1.       % Module: a clause of the block was refused
:- dynamic lpad_object/2.           % Key, Theory
:- dynamic lpad_rule/5.             % Hash, ClauseId, Heads, Lits, Key: added
:- dynamic lpad_done/2.             % ClauseId, Key: ground clause in the theory
:- dynamic lpad_false/3.            % Hash, Atom, Key: Atom never holds
:- dynamic lpad_support/3.          % Hash, Atom, Supports: see decide_support/2

% Two lists live in the recorded database, which stores a large term
% faster than assertz/1 compiles it: under the key cplogic_stage the items
% s(Key, Item, Where, VarNames) that were read and wait for the predicate
% set, and under cplogic_collected the rules a grounding has collected and
% not yet added to the theory.

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
    drop_block(M),
    (   lpad_block_done(M, File, In)
    ->  % the clauses up to end_lpad are read and dropped
        assertz(lpad_reading(M, none)),
        assertz(lpad_read_error(M)),
        assertz(lpad_second_block(M)),
        (   source_location(_, Line) -> Where = File:Line ; Where = File ),
        throw(error(cplogic_error(second_block, Where), _))
    ;   retractall(lpad_block_done(M, File, _)),
        assertz(lpad_block_done(M, File, In))
    ),
    retractall(lpad_read_error(M)),
    (   lpad_safe(M) -> Safe = true ; Safe = false ),
    new_program(M, Safe, Key),
    assertz(lpad_reading(M, Key)).

% A block that was begun and never ended is dropped.
drop_block(M) :-
    forall(retract(lpad_reading(M, Key)),
           (   Key == none -> true ; drop_program(Key) )).

%!  end_lpad is det.
%
%   Makes the clauses read since begin_lpad/0 the module's program. When
%   one of them was refused, the previous program stays in force.
end_lpad :-
    prolog_load_context(module, M),
    (   retract(lpad_reading(M, Key0))
    ->  Key = Key0
    ;   new_program(M, false, Key)      % an empty program
    ),
    (   retract(lpad_second_block(M))
    ->  retractall(lpad_read_error(M)), % begin_lpad said why
        drop_program(Key)
    ;   retract(lpad_read_error(M))
    ->  drop_program(Key),
        print_message(error, cplogic(program_not_loaded(M)))
    ;   catch(( finish_program(Key),
                switch_program(M, Key)
              ), E,
              ( drop_program(Key),
                print_message(error, E) ))
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
    lpad_reading(M, Key),
    Term \= (:- _),
    Term \= end_of_file,
    (   source_location(File, Line) -> Where = File:Line ; Where = Term ),
    catch(( parse_term(Term, Where, Item),
            (   Key == none -> true ; add_item(Key, Item, Where, []) )
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
    op(700, xfx, M:(::)),               % the file is read with M's operators
    counters(Counters),
    load_file_program(File, M, Safe, true, Key0, Complete),
    (   Complete == true
    ->  Key = Key0
    ;   % a rule stored as it was read calls a predicate that the program
        % does not define: the file is read again the general way
        restore_counters(Counters),
        load_file_program(File, M, Safe, false, Key, _)
    ),
    switch_program(M, Key).

% load_file_program(+File, +M, +Safe, +Direct, -Key, -Complete) reads the
% program of File as a new program Key. With Direct true, a ground rule of
% one head atom whose body is a conjunction of literals is stored as it is
% read, before the predicates of its body are known: Complete is false, and
% the program dropped, when one of them turns out not to be a program
% predicate. Fails, with nothing left, when reading fails.
load_file_program(File, M, Safe, Direct, Key, Complete) :-
    new_program(M, Safe, Key),
    cplogic:pelm_new(cplogic_called_set, Called),
    Ctx = load(Key, Direct, Called),
    (   catch(( read_program(File, load_term(Ctx), [variable_names(true), module(M)]),
                cplogic:cplogic_called(Called, Preds),
                (   forall(member(N/A, Preds), lpad_pred(Key, N, A))
                ->  Complete = true,
                    finish_program(Key)
                ;   Complete = false
                )
              ), E, true)
    ->  cplogic:pelm_free(Called),
        (   var(E)
        ->  (   Complete == true -> true ; drop_program(Key) )
        ;   drop_program(Key),
            throw(E)
        )
    ;   cplogic:pelm_free(Called),
        drop_program(Key),
        fail
    ).

% The counters that name clauses and auxiliary atoms: a program that is read
% again gets the names the first reading gave.
counters(c(Clause, Pred, Atom)) :-
    flag(cplogic_lpad_clause, Clause, Clause),
    flag(cplogic_aux_pred, Pred, Pred),
    flag(cplogic_aux_atom, Atom, Atom).

restore_counters(c(Clause, Pred, Atom)) :-
    flag(cplogic_lpad_clause, _, Clause),
    flag(cplogic_aux_pred, _, Pred),
    flag(cplogic_aux_atom, _, Atom).

% Each term is checked, parsed and installed as it is read, so that only
% the program itself, not the file's text, is held.
load_term(load(Key, _, _), (:- D), _, _) :-
    !,
    (   nonvar(D), D = op(P, T, N)
    ->  lpad_module(Key, M),
        op(P, T, M:N)
    ;   true
    ).
load_term(load(Key, Direct, Called), Term, Where, Names) :-
    check_clause_head(Term, Where, Names),
    (   Direct == true,
        nonvar(Term),
        Term = (Head :- Body),
        ground_head(Head),
        cplogic:cplogic_literal_body(Called, Body, Negs, Poss, Disjoint)
    ->  parse_heads(Head, Where, Heads),
        (   Heads = [H-P]
        ->  add_ground_rule(Key, H, P, Negs, Poss, Disjoint, Body, Where, Names)
        ;   conj_literals(Body, shape_atom(Where), Lits, []),
            add_item(Key, lits(Heads, Lits), Where, Names)
        )
    ;   nonvar(Term),
        Term = (Head :- Body),
        conj_literals(Body, shape_atom(Where), Lits, [])
    ->  parse_heads(Head, Where, Heads),
        add_item(Key, lits(Heads, Lits), Where, Names)
    ;   (   nonvar(Term), Term = (_ :- Body)
        ->  check_no_argumentless(Body, Where)
        ;   true
        ),
        parse_term(Term, Where, Item),
        add_item(Key, Item, Where, Names)
    ).

% ground_head(+Head): Head is one ground head atom, with a probability
% that is a number or without one.
ground_head(Head) :-
    nonvar(Head),
    (   Head = (A : P) -> number(P)
    ;   Head = (P :: A) -> number(P)
    ;   A = Head
    ),
    callable(A),
    ground(A),
    A \== null.

% add_ground_rule(+Key, +H, +P, +Negs0, +Poss0, +Disjoint, +Body, +Where,
% +VarNames): the rule H:P :- Body, whose body has the atoms Negs0 negated
% and Poss0 (Disjoint is true when none is both), is stored as
% install_item/3 would store it once the program is complete, which the
% reader checks then (cplogic_called/2). Only a rule for a predicate that an
% item waiting in the stage has in its head waits as well, which keeps the
% order of each predicate's rules.
add_ground_rule(Key, H, P, Negs0, Poss0, Disjoint, Body, Where, Names) :-
    register_heads([H-P], Key),
    functor(H, N, A),
    (   lpad_staged_pred(Key, N, A)
    ->  conj_literals(Body, shape_atom(Where), Lits, []),
        stage(Key, lits([H-P], Lits), Where, Names)
    ;   reserve_auxiliary_atom(H),
        sort(Negs0, Negs),
        sort(Poss0, Poss),
        (   Negs == [], Poss == []
        ->  Ref = f(P, Where)
        ;   ( Disjoint == true -> true ; ord_disjoint(Negs, Poss) )
        ->  Ref = s(P, Negs, Poss, Where)
        ;   Ref = c(0, [H-P], r(same, Negs, Poss), Where, never)
        ),
        head_entry(Key, Ref, 1, H, Entry),
        assertz(Entry)
    ).

% conj_literals(+Body, :Check, -Lits, ?Tail): the literals of a body that
% is a conjunction of atoms and negated ground atoms, as body_literals/7
% makes them, where call(Check, Atom) accepts every atom; fails for any
% other body.
conj_literals(G, Check, L0, L) :-
    nonvar(G),
    (   G = (A, B)
    ->  conj_literals(A, Check, L0, L1),
        conj_literals(B, Check, L1, L)
    ;   G == true
    ->  L0 = L
    ;   ( G = (\+ A) ; G = not(A) )
    ->  nonvar(A),
        call(Check, A),
        ground(A),
        L0 = [neg(A) | L]
    ;   call(Check, G),
        L0 = [pos(G) | L]
    ).

% shape_atom(+Where, +A): A may be a program atom; its terms are checked as
% check_clause/3 does, in its order.
shape_atom(Where, A) :-
    (   atom(A)
    ->  true
    ;   compound(A),
        \+ control(A),
        check_no_argumentless(A, Where)
    ).

% new_program(+Module, +Safe, -Key): an empty program for Module, not yet
% in force.
new_program(M, Safe, Key) :-
    flag(cplogic_lpad_program, Key, Key + 1),
    assertz(lpad_module(Key, M)),
    (   Safe == true -> assertz(lpad_load_safe(Key)) ; true ).

% The program Key, read completely, becomes Module's.
switch_program(M, Key) :-
    with_mutex(cplogic_lpad,
               ( forall(retract(lpad_program(M, Old)), forget_program(Old)),
                 assertz(lpad_program(M, Key)) )).

drop_program(Key) :-
    with_mutex(cplogic_lpad, forget_program(Key)).

% add_item(+Key, +Item, +Where, +VarNames): installs Item now when what it
% means does not depend on clauses that come later: a clause whose body
% has only atoms of predicates with a clause before it (or its own head),
% negated or not. Any other body goal could become a program atom, so it
% waits, and so does everything after it, which keeps the program's order.
add_item(Key, clause(Heads, true), Where, _) :-
    \+ lpad_staging(Key),
    !,                                  % a fact: stored now, as it is
    store_clause(Key, Heads-[]-Where).
add_item(Key, lits(Heads, Lits), Where, Names) :-
    !,
    register_heads(Heads, Key),
    (   \+ lpad_staging(Key),
        known_literals(Lits, Key)
    ->  store_clause(Key, Heads-Lits-Where)
    ;   stage(Key, lits(Heads, Lits), Where, Names)
    ).
add_item(Key, Item, Where, Names) :-
    (   Item = clause(Heads, _) -> register_heads(Heads, Key) ; true ),
    (   \+ lpad_staging(Key),
        settled_item(Item, Key)
    ->  install_item(Item, Key, Where)
    ;   stage(Key, Item, Where, Names)
    ).

stage(Key, Item, Where, Names) :-
    (   lpad_staging(Key) -> true ; assertz(lpad_staging(Key)) ),
    (   ( Item = lits(Heads, _) ; Item = clause(Heads, _) )
    ->  forall(( member(H-_, Heads), functor(H, N, A), \+ lpad_staged_pred(Key, N, A) ),
               assertz(lpad_staged_pred(Key, N, A)))
    ;   true
    ),
    (   lpad_load_safe(Key) -> Kept = Names ; Kept = [] ),
    recordz(cplogic_stage, s(Key, Item, Where, Kept)).

known_literals([], _).
known_literals([L | Ls], Key) :-
    arg(1, L, A),
    prob_goal(A, Key),
    known_literals(Ls, Key).

% literals_goal(+Lits, -Goal): the body that Lits were made from (with
% \+ for not/1, which means the same).
literals_goal([], true).
literals_goal([L | Ls], G) :-
    literal_goal(L, G0),
    (   Ls == [] -> G = G0 ; G = (G0, G1), literals_goal(Ls, G1) ).

literal_goal(pos(A), A).
literal_goal(neg(A), \+ A).

settled_item(clause(_, Body), Key) :-
    settled_body(Body, Key).
settled_item(query(Q), Key) :-
    (   lpad_load_safe(Key) -> settled_body(Q, Key) ; true ).
settled_item(evidence(E), Key) :-
    (   lpad_load_safe(Key) -> settled_body(E, Key) ; true ).

settled_body(G, Key) :-
    nonvar(G),
    (   G = (A, B)
    ->  settled_body(A, Key),
        settled_body(B, Key)
    ;   G == true
    ->  true
    ;   ( G = (\+ A) ; G = not(A) )
    ->  prob_goal(A, Key)
    ;   \+ control(G),
        prob_goal(G, Key)
    ).

install_item(clause(Heads, Raw), Key, Where) :-
    (   conj_literals(Raw, program_atom(Key), Lits, [])
    ->  store_clause(Key, Heads-Lits-Where)
    ;   lpad_module(Key, M),
        body_clauses(body(Key, M, Where), Heads, Raw, Clauses, []),
        maplist(store_clause(Key), Clauses)
    ).
install_item(lits(Heads, Lits), Key, Where) :-
    (   known_literals(Lits, Key)
    ->  store_clause(Key, Heads-Lits-Where)
    ;   literals_goal(Lits, Raw),
        install_item(clause(Heads, Raw), Key, Where)
    ).
install_item(query(Q), Key, Where) :-
    assertz(lpad_query(Key, Q, Where)).
install_item(evidence(E), Key, Where) :-
    assertz(lpad_evidence(Key, E, Where)).

% program_atom(+Key, +A): A calls a predicate of the program.
program_atom(Key, A) :-
    prob_goal(A, Key).

% The items that waited for the predicate set, in the order they were read;
% in safe mode all of them are checked before any is installed.
finish_program(Key) :-
    (   lpad_load_safe(Key)
    ->  lpad_module(Key, M),
        forall(recorded(cplogic_stage, s(Key, Item, Where, Names)),
               (   item_goal(Item, G)
               ->  safe_goals(G, M, Key, Where, Names)
               ;   true
               ))
    ;   true
    ),
    forall(recorded(cplogic_stage, s(Key, Item, Where, _), Ref),
           ( erase(Ref),
             install_item(Item, Key, Where) )),
    retractall(lpad_staging(Key)),
    retractall(lpad_staged_pred(Key, _, _)),
    retractall(lpad_load_safe(Key)).

item_goal(clause(_, B), B).
item_goal(lits(_, Lits), B) :-
    literals_goal(Lits, B).
item_goal(query(Q), Q).
item_goal(evidence(E), E).

% Safe mode: the goals that are not program atoms run as Prolog while
% grounding, so each must pass the sandbox.
safe_goals(G, M, Key, Where, Names) :-
    (   var(G)
    ->  true                            % bound by a query's answer
    ;   control_goal(G, Args)
    ->  forall(member(A, Args), safe_goals(A, M, Key, Where, Names))
    ;   prob_goal(G, Key)
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
    parse_heads(Head, Where, Heads),
    Body = Body0.

parse_heads(Head, Where, Heads) :-
    (   var(Head) -> lpad_error(bad_head(Head), Where) ; true ),
    head_list(Head, Where, Heads0),
    check_probabilities(Heads0, Where),
    without_null(Heads0, Heads).

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
    (   number(Expr)                    % evaluates to itself
    ->  (   Expr < 0
        ->  lpad_error(negative_probability(Expr), Where)
        ;   P is float(Expr)
        )
    ;   ground(Expr),
        catch(V is Expr, _, fail),
        number(V)
    ->  (   V < 0
        ->  lpad_error(negative_probability(Expr), Where)
        ;   P is float(V)
        )
    ;   lpad_error(bad_probability(Expr), Where)
    ).

check_probabilities(Heads, Where) :-
    number_sum(Heads, 0, Sum),
    (   Sum > 1.0 + 1.0e-9
    ->  lpad_error(probabilities_above_one(Sum), Where)
    ;   true
    ).

number_sum([], S, S).
number_sum([_-P | Hs], S0, S) :-
    (   number(P) -> S1 is S0 + P ; S1 = S0 ),
    number_sum(Hs, S1, S).

without_null([], []).
without_null([H | Hs0], Hs) :-
    (   H = null-_
    ->  without_null(Hs0, Hs)
    ;   Hs = [H | Hs1],
        without_null(Hs0, Hs1)
    ).

lpad_error(Culprit, Where) :-
    throw(error(cplogic_error(Culprit, Where), _)).

                 /*******************************
                 *      INSTALLING A PROGRAM    *
                 *******************************/

% register_heads(+Heads, +Key): the predicates of the head atoms are
% program predicates from now on.
register_heads([], _).
register_heads([H-_ | Hs], Key) :-
    head_pred(H, Key),
    register_heads(Hs, Key).

% head_pred(+Atom, +Key): the predicate of Atom, registered when it is new.
head_pred(H, Key) :-
    functor(H, N, A),
    (   lpad_pred(Key, N, A)
    ->  true
    ;   head_table(A),
        reserve_auxiliary_name(N),
        assertz(lpad_pred(Key, N, A))
    ).

head_table(A) :-
    (   lpad_head_table(A)
    ->  true
    ;   Arity is A + 4,
        dynamic(lpad_head/Arity),
        assertz(lpad_head_table(A))
    ).

% head_entry(+Key, ?Ref, ?Pos, +Atom, -Entry): the index clause of head
% atom Pos of a clause; with Atom partly bound, the goal that finds the
% heads that unify with it.
head_entry(Key, Ref, Pos, Atom, Entry) :-
    (   compound(Atom)
    ->  compound_name_arguments(Atom, N, Args)
    ;   N = Atom,
        Args = []
    ),
    Entry =.. [lpad_head, N, Key, Ref, Pos | Args].

% entry_clause(+Ref, +Atom, -Clause): the clause of an index entry whose
% head atom is Atom.
entry_clause(Ref, A, Clause) :-
    (   Ref = c(_, _, _, _, _)
    ->  Clause = Ref
    ;   Ref = f(P, Where)
    ->  Clause = c(0, [A-P], r(same, [], []), Where, rule)
    ;   Ref = s(P, Negs, Poss, Where)
    ->  Clause = c(0, [A-P], r(same, Negs, Poss), Where, rule)
    ;   lpad_clause(Ref, _, Clause)
    ).

% A saved theory holds the auxiliary atoms of another session: the names
% made from now on are above theirs, so that none is made twice.
reserve_auxiliary_name(Name) :-
    (   atom(Name),
        atom_concat('$cplogic_', Rest, Name),
        ( atom_concat(body_, Num, Rest) ; atom_concat(goal_, Num, Rest) ),
        atom_number(Num, N), integer(N)
    ->  flag(cplogic_aux_pred, N0, max(N0, N + 1))
    ;   true
    ).

reserve_auxiliary_atom(H) :-
    (   H = '$cplogic_aux'(N), integer(N)
    ->  flag(cplogic_aux_atom, N0, max(N0, N + 1))
    ;   true
    ).

% store_clause(+Key, +Clause): stores Heads-Body-Where with its head atoms
% in the index (a clause of one head atom is its index entry, a ground fact
% only f(Prob, Where) beside the arguments of its atom). A ground clause
% without calls has a single grounding, worked out here.
store_clause(Key, Heads-Body-Where) :-
    clause_kind(Heads, Body, Kind, Stored),
    (   Heads = [H-P]
    ->  (   Kind == open
        ->  flag(cplogic_lpad_clause, Id, Id + 1)
        ;   Id = 0
        ),
        head_pred(H, Key),
        reserve_auxiliary_atom(H),
        (   Stored == r(same, [], [])
        ->  Ref = f(P, Where)
        ;   Kind == rule,
            Stored = r(same, Negs, Poss)
        ->  Ref = s(P, Negs, Poss, Where)
        ;   Ref = c(Id, Heads, Stored, Where, Kind)
        ),
        head_entry(Key, Ref, 1, H, Entry),
        assertz(Entry)
    ;   flag(cplogic_lpad_clause, Id, Id + 1),
        assertz(lpad_clause(Id, Key, c(Id, Heads, Stored, Where, Kind))),
        index_heads(Heads, 1, Key, Id)
    ).

clause_kind(Heads, Body, Kind, Stored) :-
    (   Body == [],
        Heads = [_],
        ground(Heads)
    ->  Kind = rule,                    % a fact
        Stored = r(same, [], [])
    ;   ground(Heads-Body)
    ->  (   split_literals(Body, Negs0, Poss0)
        ->  sort(Negs0, Negs),
            sort(Poss0, Poss),
            (   Heads = [_]
            ->  MH = same
            ;   merge_heads(Heads, Merged),
                (   Merged == Heads -> MH = same ; MH = Merged )
            ),
            Stored = r(MH, Negs, Poss),
            (   ord_disjoint(Negs, Poss) -> Kind = rule ; Kind = never )
        ;   Kind = ground,              % with calls
            Stored = Body
        )
    ;   Kind = open,
        Stored = Body
    ).

% split_literals(+Lits, -Negs, -Poss) fails for a body with calls.
split_literals([], [], []).
split_literals([L | Ls], Ns, Ps) :-
    split_literal(L, Ns, Ns1, Ps, Ps1),
    split_literals(Ls, Ns1, Ps1).

split_literal(neg(A), [A | Ns], Ns, Ps, Ps).
split_literal(pos(A), Ns, Ns, [A | Ps], Ps).

index_heads([], _, _, _).
index_heads([H-_ | Hs], Pos, Key, Id) :-
    head_pred(H, Key),
    reserve_auxiliary_atom(H),
    head_entry(Key, Id, Pos, H, Entry),
    assertz(Entry),
    Pos1 is Pos + 1,
    index_heads(Hs, Pos1, Key, Id).

% recursive_pred(+Key, +Name, +Arity): the predicate is on a cycle of the
% predicate dependency graph: only its ground atoms can be on a ground
% cycle. Only grounding clauses with variables or calls and rules of
% several head atoms asks, so the graph is made when it is first needed
% (many programs never need it), in one pass over the program. A predicate
% on a cycle has edges in and out, so the search needs only the edges
% between such predicates: none in a program whose rules use only facts.
recursive_pred(Key, N, A) :-
    (   lpad_recursion(Key) -> true ; recursive_predicates(Key) ),
    lpad_recursive(Key, N, A).

recursive_predicates(Key) :-
    trie_new(Edges),
    forall(( lpad_pred(Key, N, Ar),
             length(Args, Ar),
             Entry =.. [lpad_head, N, Key, Ref, _ | Args],
             call(Entry),
             \+ integer(Ref),          % in lpad_clause/3, below
             A =.. [N | Args],
             entry_clause(Ref, A, c(_, Heads, Body, _, _))
           ),
           clause_edges(Heads, Body, Edges)),
    forall(lpad_clause(_, Key, c(_, Heads, Body, _, _)),
           clause_edges(Heads, Body, Edges)),
    findall(E, trie_gen(Edges, E), Pairs),
    trie_destroy(Edges),
    pairs_keys_values(Pairs, From0, To0),
    sort(From0, From),
    sort(To0, To),
    ord_intersection(From, To, Both),
    (   Both == []
    ->  true
    ;   pairs_keys_values(BothPairs, Both, Both),
        list_to_assoc(BothPairs, BothSet),
        include(inner_edge(BothSet), Pairs, Inner),
        cyclic_vertices(Inner, Recursive),
        forall(member(N/A, Recursive), assertz(lpad_recursive(Key, N, A)))
    ),
    assertz(lpad_recursion(Key)).

inner_edge(Set, P-Q) :-
    get_assoc(P, Set, _),
    get_assoc(Q, Set, _).

% The edges Head -> Body atom, each once (a trie keeps the set).
clause_edges(Heads, Body, Edges) :-
    (   Body = r(_, Negs, Poss)
    ->  maplist(positive, Poss, PLits),
        maplist(negative, Negs, NLits),
        append(NLits, PLits, Lits)
    ;   Lits = Body
    ),
    head_edges(Heads, Lits, Edges).

head_edges([], _, _).
head_edges([H-_ | Hs], Lits, Edges) :-
    functor(H, HN, HA),
    body_edges(Lits, HN/HA, Edges),
    head_edges(Hs, Lits, Edges).

body_edges([], _, _).
body_edges([L | Ls], P, Edges) :-
    (   L = call(_)
    ->  true
    ;   arg(1, L, B),
        functor(B, BN, BA),
        (   trie_insert(Edges, P-(BN/BA)) -> true ; true )
    ),
    body_edges(Ls, P, Edges).

program_pred(Key, G) :-
    callable(G),
    functor(G, N, A),
    lpad_pred(Key, N, A).

% Drops the program Key, its theory object and the library's tables of it
% (the user's tables stay).
forget_program(none) :-
    !.
forget_program(Key) :-
    forall(lpad_pred(Key, N, A),
           (   length(Args, A),
               Entry =.. [lpad_head, N, Key, _, _ | Args],
               retractall(Entry)
           )),
    retractall(lpad_pred(Key, _, _)),
    retractall(lpad_clause(_, Key, _)),
    retractall(lpad_recursive(Key, _, _)),
    retractall(lpad_recursion(Key)),
    retractall(lpad_query(Key, _, _)),
    retractall(lpad_evidence(Key, _, _)),
    retractall(lpad_goal(Key, _, _)),
    forall(recorded(cplogic_stage, s(Key, _, _, _), Ref), erase(Ref)),
    retractall(lpad_staging(Key)),
    retractall(lpad_staged_pred(Key, _, _)),
    retractall(lpad_load_safe(Key)),
    abolish_table_subgoals(cplogic_lpad:possible(Key, _)),
    forget_theory(Key),
    retractall(lpad_module(Key, _)).

forget_theory(Key) :-
    forall(retract(lpad_object(Key, T)), catch(cplogic:pelm_free(T), _, true)),
    retractall(lpad_rule(_, _, _, _, Key)),
    retractall(lpad_false(_, _, Key)),
    retractall(lpad_done(_, Key)).

% clause_for_head(+Key, ?Atom, -Clause, -Pos): head atom Pos of Clause
% unifies with Atom.
clause_for_head(Key, A, Clause, Pos) :-
    functor(A, _, Ar),
    lpad_head_table(Ar),
    head_entry(Key, Ref, Pos, A, Goal),
    call(Goal),
    entry_clause(Ref, A, Clause).

                 /*******************************
                 *            BODIES            *
                 *******************************/

% body_clauses(+Ctx, +Heads, +Raw, -Clauses, ?Tail): the clause with its body
% as a list of literals, and the auxiliary clauses that define the
% disjunctions and negated goals of the body. Ctx = body(Key, Module, Where).
body_clauses(Ctx, Heads, Raw, [Heads-Body-Where | Aux], Tail) :-
    arg(3, Ctx, Where),
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
    Ctx = body(Key, M, Where),
    (   prob_goal(G, Key)
    ->  L0 = [pos(G) | L], A0 = A
    ;   \+ mentions_prob_goal(M, G, Key)
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
    Ctx = body(Key, M, _),
    (   prob_goal(G, Key)
    ->  (   bound_outside(G, Out)
        ->  L0 = [neg(G) | L], A0 = A
        ;   aux_clauses([G], G, Ctx, Out, Atom, A0, A),
            L0 = [neg(Atom) | L]
        )
    ;   \+ mentions_prob_goal(M, G, Key)
    ->  L0 = [call(\+ G) | L], A0 = A
    ;   aux_clauses([G], G, Ctx, Out, Atom, A0, A),
        L0 = [neg(Atom) | L]
    ).

% A ground atom is decided without looking at the rest of the clause, so
% that a long body of ground literals costs linear time.
bound_outside(G, Out) :-
    (   ground(G)
    ->  true
    ;   term_variables(G, Vs),
        term_variables(Out, OutVs),
        subset_eq(Vs, OutVs)
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

prob_goal(G, Key) :-
    callable(G),
    functor(G, N, A),
    lpad_pred(Key, N, A).

% A goal that calls a program atom: through a control construct or as a
% meta-argument (findall/3, forall/2, call/N, ...). A meta-argument that is
% a variable is decided when it runs (call_goal/3).
mentions_prob_goal(_, G, _) :-
    var(G),
    !,
    fail.
mentions_prob_goal(_, G, Key) :-
    prob_goal(G, Key),
    !.
mentions_prob_goal(M, G, Key) :-
    compound(G),
    (   control(G)
    ->  G =.. [_ | Args],
        member(Arg, Args),
        mentions_prob_goal(M, Arg, Key)
    ;   catch(predicate_property(M:G, meta_predicate(MetaHead)), _, fail),
        arg(I, MetaHead, S),
        meta_arg(S, Extra),
        arg(I, G, Arg),
        extended_goal(Arg, Extra, Goal),
        mentions_prob_goal(M, Goal, Key)
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

% in_program(+M, +Evidence, +Options, :Goal, -Result): call(Goal, Key,
% Settings, Result) on M's program Key, under the library's mutex.
in_program(M, Evidence, Options, Goal, Result) :-
    program_key(M, _),
    must_be(list, Evidence),
    query_options(Options, Settings),
    % the core names the evidence in its own terms; the error names it as
    % the caller wrote it
    catch(with_mutex(cplogic_lpad,
                     ( program_key(M, Key),
                       call(Goal, Key, Settings, Result0) )),
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
    program_key(M, Key),
    findall(Q, lpad_query(Key, Q, _), Queries),
    findall(E, lpad_evidence(Key, E, _), Evidence).

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

program_key(M, Key) :-
    lpad_program(M, Key),
    !.
program_key(M, _) :-
    throw(error(cplogic_error(no_program(M), M), _)).

query_program(Goal, Evidence, Key, Settings, P) :-
    goal_atom(Key, Goal, bad_query(Goal), Q),
    maplist(evidence_term(Key), Evidence, EvTerms),
    findall(A, member(e(A, _), EvTerms), EvAtoms),
    theory_object(Key, T),
    ground_program(Key, T, [Q | EvAtoms], Settings),
    theory_prob(T, Q, EvTerms, Settings, P).

theory_prob(T, Q, EvTerms, s(Method, Elim, CoreOptions, _), P) :-
    cplogic:vorn_cp_theory_set_settings(T, 1, 0, Method, Elim, none),
    cplogic:cplogic_prob(T, Q, EvTerms, P, CoreOptions).

% goal_atom(+Key, +Goal, +Culprit, -Atom): the atom whose probability is
% that of Goal: Goal itself for a ground program atom, otherwise the head
% of Goal's own clause.
goal_atom(Key, Goal, Culprit, Atom) :-
    (   query_goal(Goal)
    ->  true
    ;   throw(error(cplogic_error(Culprit, query), _))
    ),
    (   ground(Goal), program_pred(Key, Goal)
    ->  Atom = Goal
    ;   goal_clause(Key, Goal, [], Atom)
    ).

evidence_term(Key, L, e(A, V)) :-
    (   evidence_literal(L, G, V)
    ->  goal_atom(Key, G, bad_evidence(L), A)
    ;   throw(error(cplogic_error(bad_evidence(L), query), _))
    ).

% query_goal(+Goal): Goal can be asked (prob/2, `cplogic FILE QUERY`).
query_goal(G) :-
    callable(G).

% evidence_literal(+Literal, -Goal, -Value): Literal is the goal Goal
% observed true (Value 1), or `\+ Goal` or not(Goal) observed false (0)
% (prob/3, `cplogic --given`).
evidence_literal(L, G, V) :-
    (   nonvar(L), ( L = (\+ G0) ; L = not(G0) )
    ->  V = 0, G = G0
    ;   V = 1, G = L
    ),
    query_goal(G).

% goal_clause(+Key, +Goal, +Vars, -Head): Head = '$cplogic_goal_N'(Vars)
% with the clause Head :- Goal in the program; one clause per goal and
% answer variables, up to renaming.
goal_clause(Key, Goal, Vars, Head) :-
    variant_sha1(Goal-Vars, VKey),
    (   lpad_goal(Key, VKey, Stored)
    ->  copy_term(Stored, Goal-Vars-Head)
    ;   copy_term(Goal-Vars, G1-V1),
        flag(cplogic_aux_pred, N, N + 1),
        format(atom(Name), '$cplogic_goal_~w', [N]),
        H1 =.. [Name | V1],
        lpad_module(Key, M),
        body_clauses(body(Key, M, goal(Goal)), [H1-1.0], G1, Clauses, []),
        maplist(store_clause(Key), Clauses),
        assertz(lpad_goal(Key, VKey, G1-V1-H1)),
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

all_answers(Goal, Evidence, Key, Settings, Answers) :-
    (   query_goal(Goal) -> true ; throw(error(cplogic_error(bad_query(Goal), query), _)) ),
    answer_variables(Goal, Vars),
    maplist(evidence_term(Key), Evidence, EvTerms),
    findall(A, member(e(A, _), EvTerms), EvAtoms),
    theory_object(Key, T),
    (   Vars == []
    ->  goal_atom(Key, Goal, bad_query(Goal), Q),
        ground_program(Key, T, [Q | EvAtoms], Settings),
        theory_prob(T, Q, EvTerms, Settings, P),
        Answers = [Goal-P]
    ;   goal_clause(Key, Goal, Vars, Head),
        findall(Head, possible(Key, Head), Heads0),
        sort(Heads0, Heads),
        (   member(H, Heads), \+ ground(H)
        ->  throw(error(cplogic_error(unbound_answer(Goal), query), _))
        ;   true
        ),
        append(Heads, EvAtoms, ToGround),
        ground_program(Key, T, ToGround, Settings),
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
    with_mutex(cplogic_lpad,
               ( program_key(M, Key),
                 theory_object(Key, T) )).

%!  lpad_ground(:Atoms, -Theory) is det.
%
%   Adds to the module's theory object every grounding that the ground atoms
%   in the list Atoms need.
lpad_ground(M:Atoms, T) :-
    program_key(M, _),
    must_be(list, Atoms),
    maplist(check_ground_atom, Atoms),
    with_mutex(cplogic_lpad,
               ( program_key(M, Key),
                 theory_object(Key, T),
                 ground_program(Key, T, Atoms, s(cf, cst, [], false)) )).

check_ground_atom(A) :-
    (   ground(A), callable(A), \+ control(A)
    ->  true
    ;   throw(error(cplogic_error(bad_query(A), query), _))
    ).

theory_object(Key, T) :-
    lpad_object(Key, T),
    !.
theory_object(Key, T) :-
    cplogic:pelm_new(vorn_cp_theory, T),
    assertz(lpad_object(Key, T)).

                 /*******************************
                 *           GROUNDING          *
                 *******************************/

% ground_program(+Key, +Theory, +Atoms, +Settings): adds the ground rules
% that Atoms need. The rules are collected first (in the database, so that a
% long chain costs no stack); rules that need an atom that can never hold
% are dropped; when the walk met a cycle, the cyclic components are
% rewritten into acyclic rules. On an error the theory is dropped: it may
% hold part of a grounding.
ground_program(Key, T, Atoms, Settings) :-
    arg(4, Settings, Progress),
    get_time(Start),
    State = walk(false, Progress, Start, Start, 0, 0),
    catch(( walk([frame(root, [Atoms], false)], Key, T, State),
            (   lpad_false(_, _, Key) -> Filter = true ; Filter = false ),
            (   arg(1, State, true)
            ->  findall(R, ( recorded(cplogic_collected, R0, Ref),
                             erase(Ref),
                             useful_rule(Filter, Key, R0, R1),
                             literal_rule(R1, R) ), Rules),
                acyclic_rules(Rules, Acyclic),
                maplist(add_rule(T), Acyclic)
            ;   forall(( recorded(cplogic_collected, R0, Ref),
                         erase(Ref),
                         useful_rule(Filter, Key, R0, R) ),
                       add_rule(T, R))
            ),
            progress_done(State)
          ),
          E,
          ( forall(recorded(cplogic_collected, _, Ref), erase(Ref)),
            retractall(lpad_support(_, _, _)),
            forget_theory(Key),
            throw(E) )).

positive(A, pos(A)).
negative(A, neg(A)).

% A rule's body is a list of literals, or np(Negs, Poss) for a rule worked
% out at install: the sorted atoms of its negative and positive literals.
add_rule(T, rule(Heads, Body, _)) :-
    maplist(head_term, Heads, HTerms),
    (   Body = np(Negs, Poss)
    ->  Event = event(HTerms, Negs, Poss)
    ;   maplist(body_term, Body, BTerms),
        Event = event(HTerms, BTerms)
    ),
    cplogic:vorn_cp_theory_add_event(T, Event).

% The rule with its body as a list of literals, in the order of sort/2.
literal_rule(rule(Heads, Body, Where), rule(Heads, Lits, Where)) :-
    (   Body = np(Negs, Poss)
    ->  maplist(negative, Negs, NLits),
        maplist(positive, Poss, PLits),
        append(NLits, PLits, Lits)
    ;   Lits = Body
    ).

% A rule whose body needs an atom that never holds is left out, and a
% negated literal on such an atom is true: false atoms would otherwise stay
% in the network as variables that tie their neighbours together. Without
% such atoms (Filter false) every rule stays as it is.
useful_rule(false, _, Rule, Rule) :-
    !.
useful_rule(true, Key, rule(Heads, np(Negs0, Poss), Where), Rule) :-
    !,
    \+ ( member(A, Poss), never_holds(Key, A) ),
    exclude(never_holds(Key), Negs0, Negs),
    Rule = rule(Heads, np(Negs, Poss), Where).
useful_rule(true, Key, rule(Heads, Lits0, Where), rule(Heads, Lits, Where)) :-
    \+ ( member(pos(A), Lits0), never_holds(Key, A) ),
    exclude(negated_false(Key), Lits0, Lits).

negated_false(Key, neg(A)) :-
    never_holds(Key, A).

never_holds(Key, A) :-
    term_hash(A, H),
    lpad_false(H, A, Key).

% A depth-first walk over the ground atoms with an explicit stack, so that
% the depth of the program costs no Prolog recursion. The theory's atom
% table marks an atom 1 from its expansion until all it depends on is done,
% then 2: meeting a 1 is meeting an atom on the current path, a cycle.
% When an atom is done and none of its rules is free of atoms that never
% hold (atoms on the current path may hold), it never holds either.
% A frame(Atom, Chunks, Support) has the atom's children as lists of
% atoms; Support tells whether lpad_support/3 holds the atom.
% State = walk(Cyclic, Progress, Start, LastReport, Atoms, Rules).
walk([], _, _, _).
walk([frame(A, Chunks, Sup) | Stack], Key, T, State) :-
    (   Chunks = [Chunk | More]
    ->  (   Chunk = [C | Cs]
        ->  cplogic:vorn_cp_theory_atom_in_table(T, C, Status),
            (   Status =:= 2
            ->  walk([frame(A, [Cs | More], Sup) | Stack], Key, T, State)
            ;   Status =:= 0
            ->  expand_atom(Key, T, C, Next, NRules, CSup),
                progress(State, NRules),
                walk([frame(C, Next, CSup), frame(A, [Cs | More], Sup) | Stack], Key, T, State)
            ;   nb_setarg(1, State, true),
                walk([frame(A, [Cs | More], Sup) | Stack], Key, T, State)
            )
        ;   walk([frame(A, More, Sup) | Stack], Key, T, State)
        )
    ;   Stack == []
    ->  true
    ;   cplogic:vorn_cp_theory_atom_table_success(T, A),
        (   Sup == true -> decide_support(Key, A) ; true ),
        walk(Stack, Key, T, State)
    ).

% lpad_support(Hash, Atom, Supports) is kept in the database, not on the
% walk's stack, and only for an atom whose every rule has a positive body
% atom: Supports are these atoms, a list per rule.
decide_support(Key, A) :-
    term_hash(A, H),
    (   retract(lpad_support(H, A, Sup))
    ->  (   member(Atoms, Sup), \+ ( member(B, Atoms), never_holds(Key, B) )
        ->  true
        ;   assertz(lpad_false(H, A, Key))
        )
    ;   true
    ).

% expand_atom(+Key, +Theory, +Atom, -Chunks, -Count, -Support): collects
% the Count ground rules with Atom in their head; Chunks are the atoms of
% their bodies and, for the predicates on a cycle, their other head atoms:
% every rule in the theory then has all of its head atoms expanded, so a
% later query never finds a cycle through rules that are already in the
% theory. Support is true when lpad_support/3 now holds the atom.
%
% Meeting an atom twice among them changes nothing (the second time it is
% done or on the path), and neither does meeting one that is done: the
% theory keeps each atom where it first occurs and drops those done, so that
% an atom with many long rules over the same atoms costs a step of the walk
% per atom, not per literal.
expand_atom(Key, T, A, [Atoms], NRules, Support) :-
    findall(Item, expanded_rule(Key, A, Item), Items),
    expanded_items(Items, Lists, 0, NRules, Sup, false, Fact),
    cplogic:vorn_cp_theory_new_atoms(T, Lists, Atoms),
    (   Fact == true
    ->  Support = false
    ;   term_hash(A, H),
        assertz(lpad_support(H, A, Sup)),
        Support = true
    ).

% expanded_rule(+Key, +A, -Item): Item = r(New, Lists, Positives, Others)
% for a rule of A, Lists the lists of its body atoms; a new rule is
% collected.
expanded_rule(Key, A, r(New, Lists, Ps, Others)) :-
    rule_for_atom(Key, A, Rule, New),
    (   New == true -> recordz(cplogic_collected, Rule) ; true ),
    Rule = rule(Heads, Body, _),
    (   Body = np(Negs, Poss)
    ->  Ps = Poss,
        Lists = [Negs, Poss]
    ;   literal_atoms(Body, All, Ps),
        Lists = [All]
    ),
    (   Heads = [_, _ | _]
    ->  other_heads(Heads, A, Key, Others)
    ;   Others = []
    ).

expanded_items([], [], N, N, [], F, F).
expanded_items([r(New, Lists, Ps, Others) | Items], Ls0, N0, N, [Ps | Sup], F0, F) :-
    (   New == true -> N1 is N0 + 1 ; N1 = N0 ),
    (   Ps == [] -> F1 = true ; F1 = F0 ),
    append(Lists, Ls1, Ls0),
    (   Others == [] -> Ls1 = Ls2 ; Ls1 = [Others | Ls2] ),
    expanded_items(Items, Ls2, N1, N, Sup, F1, F).

% literal_atoms(+Lits, -Atoms, -Positives)
literal_atoms([], [], []).
literal_atoms([L | Ls], [B | Bs], Ps) :-
    arg(1, L, B),
    (   L = pos(_) -> Ps = [B | Ps1] ; Ps = Ps1 ),
    literal_atoms(Ls, Bs, Ps1).

other_heads([], _, _, []).
other_heads([B-_ | Hs], A, Key, Others) :-
    (   B \== A,
        functor(B, N, Ar),
        recursive_pred(Key, N, Ar)
    ->  Others = [B | Others1]
    ;   Others = Others1
    ),
    other_heads(Hs, A, Key, Others1).

% rule_for_atom(+Key, +A, -Rule, -New): the ground rules with A in their
% head; New is false for a rule that another head atom added before, which
% still gives A's dependencies (so that the walk meets every cycle).
rule_for_atom(Key, A, Rule, New) :-
    functor(A, _, Ar),
    lpad_head_table(Ar),
    head_entry(Key, Ref, Pos, A, Goal),
    call(Goal),
    entry_rule(Ref, Key, Pos, A, Rule, New).

% A ground fact or rule of one head atom is new: its atom is expanded once
% per theory (once_per_theory/4).
entry_rule(f(P, Where), _, _, A, rule([A-P], np([], []), Where), true) :-
    !.
entry_rule(s(P, Negs, Poss, Where), _, _, A, rule([A-P], np(Negs, Poss), Where), true) :-
    !.
entry_rule(Ref, Key, Pos, A, Rule, New) :-
    entry_clause(Ref, A, c(Id, Heads, Body, Where, Kind)),
    clause_rule(Kind, Key, Id, Pos, A, Heads, Body, Where, Rule, New).

clause_rule(rule, Key, Id, _, _, Heads, r(MH, Negs, Poss), Where,
            rule(RH, np(Negs, Poss), Where), New) :-
    merged(MH, Heads, RH),
    once_per_theory(Heads, Id, Key, New).
clause_rule(never, Key, Id, _, _, Heads, r(MH, Negs, Poss), Where,
            rule(RH, np(Negs, Poss), Where), false) :-
    merged(MH, Heads, RH),
    once_per_theory(Heads, Id, Key, false).
clause_rule(ground, Key, Id, _, _, Heads, Body, Where, Rule, New) :-
    once_per_theory(Heads, Id, Key, New),
    (   New == true
    ->  % every solution of a ground body gives the same rule
        once(ground_rule(Key, Id, Heads, Body, Where, ground, Rule))
    ;   include(literal, Body, Lits),
        Rule = rule(Heads, Lits, Where)
    ).
clause_rule(open, Key, Id, Pos, A, Heads, Body, Where, Rule, New) :-
    nth1(Pos, Heads, A-_),
    ground_rule(Key, Id, Heads, Body, Where, New, Rule).

merged(same, Heads, Heads) :- !.
merged(Merged, _, Merged).

% A ground clause adds its rule once per theory: a clause of one head atom
% is met only when that atom is expanded, which happens once; a clause of
% several is marked.
once_per_theory(Heads, Id, Key, New) :-
    (   Heads = [_]
    ->  New = true
    ;   lpad_done(Id, Key)
    ->  New = false
    ;   assertz(lpad_done(Id, Key)),
        New = true
    ).

literal(pos(_)).
literal(neg(_)).

% Every way the body can hold gives one ground rule. Substitutions of a
% clause with variables that give the same rule (head atoms with their
% pooled probabilities, set of body literals) add it once.
ground_rule(Key, Id, Heads0, Body, Where, New, rule(Heads, Lits, Where)) :-
    solve_body(Body, Key, Where, Lits0),
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
        (   lpad_rule(Hash, Id, Heads, Lits, Key)
        ->  New = false
        ;   assertz(lpad_rule(Hash, Id, Heads, Lits, Key)),
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
solve_body(Body, Key, Where, Lits) :-
    maplist(mark_given, Body, Marked),
    solve_marked(Marked, Key, Where, Lits).

mark_given(L, L-Given) :-
    (   L = pos(A), ground(A) -> Given = true ; Given = false ).

solve_marked([], _, _, []).
solve_marked([L-Given | Ls], Key, Where, Lits) :-
    solve_literal(L, Given, Key, Where, Lits, Tail),
    solve_marked(Ls, Key, Where, Tail).

% A positive literal that was ground from the start needs no proof: an atom
% that nothing causes is false in the theory. One with variables is
% enumerated over the atoms that can hold. One that the body made ground is
% checked the same way unless its predicate is recursive (a deep chain of
% tabled calls): otherwise a body that enumerates X then asks edge(X, y)
% would ground an atom for every X, however few edges there are.
solve_literal(pos(A), Given, Key, _, [pos(A) | T], T) :-
    !,
    (   ground(A)
    ->  (   Given == true
        ->  true
        ;   functor(A, N, Ar), recursive_pred(Key, N, Ar)
        ->  true
        ;   possible(Key, A)
        ->  true
        )
    ;   possible(Key, A)
    ).
solve_literal(L, _, Key, Where, Lits, T) :-
    solve_literal(L, Key, Where, Lits, T).

solve_literal(neg(A), _, Where, [neg(A) | T], T) :-
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_negation(\+ A), Where), _))
    ).
solve_literal(call(G), Key, Where, T, T) :-
    call_goal(Key, G, Where).

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

%   possible(+Key, ?Atom): Atom has a derivation when negated literals
%   are ignored, so it is true in some world. Tabled, so that recursive
%   programs terminate.
:- table possible/2.

possible(Key, A) :-
    clause_for_head(Key, A, c(_, Heads, Body, Where, _), Pos),
    nth1(Pos, Heads, A-P),
    (   number(P)
    ->  P > 0.0,
        possible_body(Body, Key, Where)
    ;   possible_body(Body, Key, Where),
        probability_value(P, Where, V),
        V > 0.0
    ),
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_head([A]), Where), _))
    ).

possible_body(Body, Key, Where) :-
    (   Body = r(_, _, Poss)
    ->  possible_atoms(Poss, Key)
    ;   possible_lits(Body, Key, Where)
    ).

possible_atoms([], _).
possible_atoms([A | As], Key) :-
    possible(Key, A),
    possible_atoms(As, Key).

possible_lits([], _, _).
possible_lits([L | Ls], Key, Where) :-
    possible_literal(L, Key, Where),
    possible_lits(Ls, Key, Where).

possible_literal(pos(A), Key, _) :- possible(Key, A).
possible_literal(neg(_), _, _).
possible_literal(call(G), Key, Where) :- call_goal(Key, G, Where).

% A goal whose predicate neither the program nor Prolog defines is an atom
% that nothing causes: false. A program atom that a meta-call reaches is
% outside the language: an error, not a silent failure.
call_goal(Key, \+ G, Where) :-
    !,
    \+ call_goal(Key, G, Where).
call_goal(Key, G, Where) :-
    lpad_module(Key, M),
    (   predicate_property(M:G, defined)
    ->  catch(call(M:G), error(existence_error(procedure, PI), Ctx),
              program_call(Key, G, PI, Ctx, Where))
    ;   fail
    ).

program_call(Key, G, PI, Ctx, Where) :-
    (   PI = _:N/A -> true ; PI = N/A ),
    (   lpad_pred(Key, N, A)
    ->  throw(error(cplogic_error(meta_call(G), Where), _))
    ;   throw(error(existence_error(procedure, PI), Ctx))
    ).

% Grounding that runs for more than a second reports every second.
progress(State, _) :-
    arg(2, State, false),               % nothing to report
    !.
progress(State, NRules) :-
    arg(5, State, N0),
    N is N0 + 1,
    nb_setarg(5, State, N),
    arg(6, State, K0),
    K is K0 + NRules,
    nb_setarg(6, State, K),
    (   N mod 256 =:= 0
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
