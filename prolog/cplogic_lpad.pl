:- module(cplogic_lpad,
          [ begin_lpad/0,               % start an LPAD program in this file
            end_lpad/0,                 % end it and make it the module's program
            lpad_load/1,                % +File
            lpad_load/2,                % +File, +Module
            prob/2,                     % :Query, -Prob
            prob/3,                     % :Query, +Evidence, -Prob
            prob/4,                     % :Query, +Evidence, -Prob, +Options
            lpad_theory/2,              % :Dummy, -Theory: the module's theory object
            lpad_ground/2               % :Atoms, -Theory: ground what Atoms need
          ]).

/** <module> LPAD programs: annotated disjunctions with exact probabilities

A program is written between `:- begin_lpad.` and `:- end_lpad.`, or loaded
from a file of its own with lpad_load/1. Its clauses are

    H1:P1 ; ... ; Hn:Pn :- Body.     H:P.     H.     H :- Body.

where a probability may be an arithmetic expression and `null` as a head
atom stands for "no atom". Body literals are atoms of the program, `\+ Atom`,
or calls to ordinary Prolog predicates (the program defines no clause for
them), which run while grounding.

Queries ground only what they need: starting from the query and evidence
atoms, the ground instances of the clauses whose head can produce an atom
and whose body can hold are added to the module's theory object, whose atom
table remembers which atoms are done. The theory is kept across queries.
A ground program is a set of rules; a ground body atom that no rule causes
is false.
*/

:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(error)).
:- use_module(library(option)).
:- use_module(library(readutil)).
:- use_module(library(assoc)).
:- use_module(library(ordsets)).
:- use_module(library(pairs)).

:- meta_predicate
    prob(:, -),
    prob(:, +, -),
    prob(:, +, -, +),
    lpad_load(:),
    lpad_theory(:, -),
    lpad_ground(:, -).

% lpad_clause(Id, Module, Heads, Body, Where): Id is unique over all modules;
% Heads = [Atom-Prob, ...] without null atoms; Body = [pos(A) | neg(A) |
% call(G), ...]; Where names the clause in messages.
:- dynamic lpad_clause/5.
% lpad_index(Key, Head, Id, Pos, Ground, Module): head atom Pos of clause Id
% is Head; Key is one of the hashes of head_keys/3. Ground is true for a
% clause without variables, which has a single grounding.
:- dynamic lpad_index/6.
:- dynamic lpad_key_count/3.        % Key, Count, Module: index entries of Key
:- dynamic lpad_pending/4.          % Module, Heads, RawBody, Where: being read
:- dynamic lpad_reading/2.          % Module, File
:- dynamic lpad_read_error/1.       % Module: a clause of the block was refused
:- dynamic lpad_program/1.          % Module: it has a program
:- dynamic lpad_object/2.           % Module, Theory
:- dynamic lpad_rule/5.             % Hash, ClauseId, Heads, Lits, Module: added
:- dynamic lpad_done/2.             % ClauseId, Module: ground clause in the theory

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
    retractall(lpad_pending(M, _, _, _)),
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
    findall(H-B-W, retract(lpad_pending(M, H, B, W)), Clauses),
    (   retract(lpad_read_error(M))
    ->  print_message(error, cplogic(program_not_loaded(M)))
    ;   catch(install_program(M, Clauses), E,
              print_message(error, E))
    ).

user:term_expansion(Term, []) :-
    prolog_load_context(module, M),
    lpad_reading(M, _),
    Term \= (:- _),
    Term \= end_of_file,
    (   source_location(File, Line) -> Where = File:Line ; Where = Term ),
    catch(( parse_clause(Term, Where, Heads, Body),
            assertz(lpad_pending(M, Heads, Body, Where))
          ),
          E,
          ( assertz(lpad_read_error(M)), print_message(error, E) )).

%!  lpad_load(+File) is det.
%!  lpad_load(+File, +Module) is det.
%
%   Reads an LPAD program from File and makes it the program of the calling
%   module (or of Module). Reads both ordinary program files and the theory
%   text that vorn_cp_theory_save/2 writes. On an error nothing changes.
lpad_load(M:File) :-
    lpad_load(File, M).

lpad_load(File, M) :-
    must_be(atom, M),
    (   is_of_type(text, File) -> true ; type_error(file_name, File) ),
    absolute_file_name(File, Path, [access(read), file_errors(error)]),
    read_program_terms(Path, Terms),
    maplist(parse_located, Terms, Clauses),
    install_program(M, Clauses).

parse_located(Term-Where, Heads-Body-Where) :-
    parse_clause(Term, Where, Heads, Body).

% Reads the file as Prolog text; a saved theory (whose lines are not all
% Prolog syntax) is read line by line instead.
read_program_terms(Path, Terms) :-
    catch(read_prolog_terms(Path, Terms), error(syntax_error(_), _), fail),
    !.
read_program_terms(Path, Terms) :-
    read_saved_theory(Path, Terms),
    !.
read_program_terms(Path, _) :-
    read_prolog_terms(Path, _).         % raises the syntax error

read_prolog_terms(Path, Terms) :-
    setup_call_cleanup(
        open(Path, read, In),
        read_terms(In, Path, Terms),
        close(In)).

read_terms(In, Path, Terms) :-
    catch(read_term(In, Term, [term_position(Pos)]),
          error(syntax_error(What), Context),
          syntax_error_in(Path, What, Context)),
    (   Term == end_of_file
    ->  Terms = []
    ;   Term = (:- _)
    ->  read_terms(In, Path, Terms)
    ;   stream_position_data(line_count, Pos, Line),
        Terms = [Term-(Path:Line) | Rest],
        read_terms(In, Path, Rest)
    ).

% Names the file in the error: the stream is closed by the time it is shown.
syntax_error_in(Path, What, stream(_, Line, LinePos, CharNo)) :-
    !,
    throw(error(syntax_error(What), file(Path, Line, LinePos, CharNo))).
syntax_error_in(_, What, Context) :-
    throw(error(syntax_error(What), Context)).

% A saved theory: "% name", then one rule a line, possibly led by "(p) " or
% by a " ; " that the writer leaves after a rule with a body.
read_saved_theory(Path, Terms) :-
    read_file_to_string(Path, Text, []),
    split_string(Text, "\n", "", Lines),
    Lines = [First | _],
    sub_string(First, 0, _, _, "% "),
    saved_lines(Lines, Path, 1, Terms).

saved_lines([], _, _, []).
saved_lines([Line | Lines], Path, N, Terms) :-
    N1 is N + 1,
    normalize_space(string(Trimmed), Line),
    (   ( Trimmed == "" ; sub_string(Trimmed, 0, _, _, "%") )
    ->  Terms = Rest
    ;   sub_string(Trimmed, _, 1, 0, "."),
        strip_saved_prefix(Trimmed, Rule),
        term_string(Term, Rule),
        Terms = [Term-(Path:N) | Rest]
    ),
    saved_lines(Lines, Path, N1, Rest).

strip_saved_prefix(Line, Rule) :-
    (   sub_string(Line, 0, _, After, "(p) ")
    ->  sub_string(Line, 4, After, 0, Rest)
    ;   Rest = Line
    ),
    (   sub_string(Rest, 0, 1, After2, ";")
    ->  sub_string(Rest, 1, After2, 0, Rule0),
        normalize_space(string(Rule), Rule0)
    ;   Rule = Rest
    ).

                 /*******************************
                 *      CHECKING CLAUSES        *
                 *******************************/

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
    ;   Head = (Atom : Expr)
    ->  head_atom(Atom, Where),
        probability(Expr, Where, P),
        Heads = [Atom-P]
    ;   head_atom(Head, Where),
        Heads = [Head-1.0]
    ).

head_atom(Atom, Where) :-
    (   callable(Atom), \+ control(Atom)
    ->  true
    ;   lpad_error(bad_head(Atom), Where)
    ).

control((_,_)).
control((_;_)).
control((_->_)).
control((_:-_)).
control(\+ _).
control(_:_).

probability(Expr, Where, P) :-
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
    pairs_values(Heads, Ps),
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

% install_program(+Module, +Clauses): Clauses = [Heads-RawBody-Where, ...].
% The probabilistic predicates are those that some head defines; any other
% body goal is a call made while grounding. Everything is checked before
% the old program is dropped.
install_program(M, Clauses) :-
    findall(N/A-true, ( member(Hs-_-_, Clauses), member(H-_, Hs),
                        functor(H, N, A) ), Preds0),
    sort(Preds0, Preds),
    list_to_assoc(Preds, PredSet),
    maplist(classify_clause(PredSet), Clauses, Classified),
    forget_program(M),
    assertz(lpad_program(M)),
    foldl(store_clause(M), Classified, Keys0, []),
    msort(Keys0, Keys),
    clumped(Keys, Counts),
    forall(member(K-C, Counts), assertz(lpad_key_count(K, C, M))).

classify_clause(PredSet, Heads-Raw-Where, Heads-Body-Where) :-
    body_literals(Raw, PredSet, Where, Body, []).

body_literals(true, _, _, L, L) :- !.
body_literals((A, B), Preds, Where, L0, L) :-
    !,
    body_literals(A, Preds, Where, L0, L1),
    body_literals(B, Preds, Where, L1, L).
body_literals(G, _, Where, _, _) :-
    var(G),
    !,
    lpad_error(variable_goal, Where).
body_literals(\+ G, Preds, Where, [Lit | L], L) :-
    !,
    (   var(G) -> lpad_error(variable_goal, Where) ; true ),
    (   prob_goal(G, Preds) -> Lit = neg(G) ; Lit = call(\+ G) ).
body_literals(G, Preds, Where, [Lit | L], L) :-
    (   prob_goal(G, Preds)
    ->  Lit = pos(G)
    ;   mentions_prob_goal(G, Preds)
    ->  lpad_error(unsupported_body(G), Where)
    ;   Lit = call(G)
    ).

prob_goal(G, Preds) :-
    callable(G),
    functor(G, N, A),
    get_assoc(N/A, Preds, _).

% Control constructs around program atoms would need worlds of their own.
mentions_prob_goal(G, Preds) :-
    compound(G),
    control(G),
    G =.. [_ | Args],
    member(Arg, Args),
    nonvar(Arg),
    (   prob_goal(Arg, Preds) -> true ; mentions_prob_goal(Arg, Preds) ),
    !.

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
    abolish_table_subgoals(cplogic_lpad:possible(M, _)),
    forget_theory(M).

forget_theory(M) :-
    forall(retract(lpad_object(M, T)), catch(cplogic:pelm_free(T), _, true)),
    retractall(lpad_rule(_, _, _, _, M)),
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

                 /*******************************
                 *           QUERIES            *
                 *******************************/

%!  prob(:Query, -Prob) is det.
%!  prob(:Query, +Evidence, -Prob) is det.
%!  prob(:Query, +Evidence, -Prob, +Options) is det.
%
%   Prob is the probability of the ground atom Query given Evidence, a list
%   of ground atoms observed true and `\+ Atom` observed false. Options:
%   method(cf|tables|cpts|cfme) and elimination(cst|absorption). Evidence
%   of probability 0 raises contradictory_evidence(Evidence).
prob(Q, P) :-
    prob(Q, [], P, []).

prob(Q, E, P) :-
    prob(Q, E, P, []).

prob(M:Q, Evidence, P, Options) :-
    program_module(M, PM),
    check_query(Q),
    must_be(list, Evidence),
    maplist(evidence_literal, Evidence, EvAtoms, EvTerms),
    option(method(Method), Options, cf),
    option(elimination(Elim), Options, cst),
    must_be(oneof([cf, tables, cpts, cfme]), Method),
    must_be(oneof([cst, absorption]), Elim),
    % the core names the evidence in its own terms; the error names it as
    % the caller wrote it
    catch(with_mutex(cplogic_lpad,
                     query_program(PM, Q, EvAtoms, EvTerms, Method, Elim, P0)),
          error(cplogic_error(contradictory_evidence(_), evidence), _),
          throw(error(cplogic_error(contradictory_evidence(Evidence), evidence), _))),
    P = P0.

program_module(M, M) :-
    lpad_program(M),
    !.
program_module(M, _) :-
    throw(error(cplogic_error(no_program(M), M), _)).

check_query(Q) :-
    (   ground(Q), callable(Q), \+ control(Q)
    ->  true
    ;   throw(error(cplogic_error(bad_query(Q), query), _))
    ).

evidence_literal(L, A, e(A, V)) :-
    (   nonvar(L), L = (\+ A0) -> A = A0, V = 0 ; A = L, V = 1 ),
    (   ground(A), callable(A), \+ control(A)
    ->  true
    ;   throw(error(cplogic_error(bad_evidence(L), evidence), _))
    ).

query_program(M, Q, EvAtoms, EvTerms, Method, Elim, P) :-
    theory_object(M, T),
    ground_program(M, T, [Q | EvAtoms]),
    cplogic:vorn_cp_theory_set_settings(T, 1, 0, Method, Elim, none),
    cplogic:cplogic_prob(T, Q, EvTerms, P).


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
    maplist(check_query, Atoms),
    with_mutex(cplogic_lpad,
               ( theory_object(PM, T),
                 ground_program(PM, T, Atoms) )).

theory_object(M, T) :-
    lpad_object(M, T),
    !.
theory_object(M, T) :-
    cplogic:pelm_new(vorn_cp_theory, T),
    assertz(lpad_object(M, T)).

                 /*******************************
                 *           GROUNDING          *
                 *******************************/

% ground_program(+Module, +Theory, +Atoms): adds the ground rules that Atoms
% need. On an error the theory is dropped: it may hold part of a grounding.
ground_program(M, T, Atoms) :-
    catch(walk([frame(root, Atoms)], M, T), E,
          ( forget_theory(M), throw(E) )).

% A depth-first walk over the ground atoms with an explicit stack, so that
% the depth of the program costs no Prolog recursion. The theory's atom
% table marks an atom 1 from its expansion until all it depends on is done,
% then 2: meeting a 1 is meeting an atom on the current path, a cycle.
walk([], _, _).
walk([frame(A, Children) | Stack], M, T) :-
    (   Children = [C | Cs]
    ->  cplogic:vorn_cp_theory_atom_in_table(T, C, Status),
        (   Status =:= 2
        ->  walk([frame(A, Cs) | Stack], M, T)
        ;   Status =:= 0
        ->  expand_atom(M, T, C, Next),
            walk([frame(C, Next), frame(A, Cs) | Stack], M, T)
        ;   throw(error(cplogic_error(cycle(C), C), _))
        )
    ;   (   Stack == []
        ->  true
        ;   cplogic:vorn_cp_theory_atom_table_success(T, A),
            walk(Stack, M, T)
        )
    ).

% expand_atom(+M, +T, +Atom, -BodyAtoms): adds every ground rule with Atom
% in its head; BodyAtoms are the atoms of their bodies.
expand_atom(M, T, A, BodyAtoms) :-
    findall(B, ( rule_for_atom(M, T, A, Lits),
                 member(L, Lits),
                 arg(1, L, B) ),
            BodyAtoms).

rule_for_atom(M, T, A, Lits) :-
    clause_for_head(M, A, Id, Pos, Ground),
    (   Ground == true
    ->  \+ lpad_done(Id, M),
        lpad_clause(Id, M, Heads, Body, Where),
        assertz(lpad_done(Id, M)),
        % every solution of a ground body gives the same rule
        once(ground_rule(M, T, Id, Heads, Body, Where, ground, Lits))
    ;   lpad_clause(Id, M, Heads, Body, Where),
        nth1(Pos, Heads, A-_),
        ground_rule(M, T, Id, Heads, Body, Where, new, Lits)
    ).

% Every way the body can hold gives one ground rule. Substitutions of a
% clause with variables that give the same rule (head atoms with their
% pooled probabilities, set of body literals) add it once.
ground_rule(M, T, Id, Heads0, Body, Where, Seen, Lits) :-
    solve_body(Body, M, Where, Lits0),
    (   ground(Heads0)
    ->  true
    ;   throw(error(cplogic_error(nonground_head(Heads0), Where), _))
    ),
    (   ground(Lits0)
    ->  true
    ;   throw(error(cplogic_error(nonground_body(Lits0), Where), _))
    ),
    sort(Lits0, Lits),
    consistent_body(Lits),
    merge_heads(Heads0, Heads),
    (   Seen == ground
    ->  true
    ;   term_hash(Id-Heads-Lits, Hash),
        \+ lpad_rule(Hash, Id, Heads, Lits, M)
    ->  assertz(lpad_rule(Hash, Id, Heads, Lits, M))
    ;   fail
    ),
    maplist(head_term, Heads, HTerms),
    maplist(body_term, Lits, BTerms),
    cplogic:vorn_cp_theory_add_event(T, event(HTerms, BTerms)).

solve_body([], _, _, []).
solve_body([L | Ls], M, Where, Lits) :-
    solve_literal(L, M, Where, Lits, Tail),
    solve_body(Ls, M, Where, Tail).

% A ground positive literal needs no proof: an atom that nothing causes is
% false in the theory. One with variables is enumerated over the atoms that
% can hold.
solve_literal(pos(A), M, _, [pos(A) | T], T) :-
    (   ground(A) -> true ; possible(M, A) ).
solve_literal(neg(A), _, Where, [neg(A) | T], T) :-
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_negation(\+ A), Where), _))
    ).
solve_literal(call(G), M, _, T, T) :-
    call_goal(M, G).

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
    lpad_clause(Id, M, Heads, Body, _),
    nth1(Pos, Heads, A-P),
    P > 0.0,
    possible_body(Body, M).

possible_body([], _).
possible_body([L | Ls], M) :-
    possible_literal(L, M),
    possible_body(Ls, M).

possible_literal(pos(A), M) :- possible(M, A).
possible_literal(neg(_), _).
possible_literal(call(G), M) :- call_goal(M, G).

% A goal whose predicate neither the program nor Prolog defines is an atom
% that nothing causes: false.
call_goal(M, \+ G) :-
    !,
    \+ call_goal(M, G).
call_goal(M, G) :-
    (   predicate_property(M:G, defined)
    ->  call(M:G)
    ;   fail
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
where(M) --> { atom(M) }, !.
where(Clause) --> [ 'in clause ~q: '-[Clause] ].

culprit(bad_head(H)) --> [ 'head ~q is not an atom or compound term'-[H] ].
culprit(bad_probability(P)) --> [ 'probability ~q is not a number'-[P] ].
culprit(negative_probability(P)) --> [ 'probability ~q is negative'-[P] ].
culprit(probabilities_above_one(S)) -->
    [ 'the probabilities of the head sum to ~w, above 1'-[S] ].
culprit(variable_goal) --> [ 'a body goal is a variable' ].
culprit(unsupported_body(G)) -->
    [ 'body goal ~q: program atoms may appear only as literals of a conjunction'-[G] ].
culprit(nonground_negation(L)) -->
    [ 'negated literal ~q is not ground when it is reached'-[L] ].
culprit(nonground_head(Hs)) -->
    { pairs_keys(Hs, As) },
    [ 'head ~q is not ground after its body was solved'-[As] ].
culprit(nonground_body(Ls)) -->
    [ 'body literals ~q are not ground after the body was solved'-[Ls] ].
culprit(bad_query(Q)) --> [ 'query ~q is not a ground atom'-[Q] ].
culprit(bad_evidence(E)) -->
    [ 'evidence ~q is not a ground atom or \\+ of one'-[E] ].
culprit(contradictory_evidence(Ls)) -->
    { maplist([L, S]>>format(string(S), "~q", [L]), Ls, Ss),
      atomic_list_concat(Ss, ', ', Text) },
    [ 'the evidence ~w is contradictory: its probability is 0'-[Text] ].
culprit(cycle(A)) -->
    [ 'the ground program has a cycle through its rules at ~q'-[A] ].
culprit(no_program(M)) -->
    [ 'module ~q has no LPAD program (use begin_lpad/end_lpad or lpad_load/1)'-[M] ].
