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
*/

:- use_module(library(lists)).
:- use_module(library(apply)).
:- use_module(library(error)).
:- use_module(library(option)).
:- use_module(library(readutil)).

:- meta_predicate
    prob(:, -),
    prob(:, +, -),
    prob(:, +, -, +),
    lpad_load(:),
    lpad_theory(:, -),
    lpad_ground(:, -).

% lpad_clause(Module, Id, Heads, Body, Where): Heads = [Atom-Prob, ...]
% without null atoms; Body = [pos(A) | neg(A) | call(G), ...]; Where names
% the clause in messages.
:- dynamic lpad_clause/5.
:- dynamic lpad_pending/4.          % Module, Heads, RawBody, Where: being read
:- dynamic lpad_reading/2.          % Module, File
:- dynamic lpad_read_error/1.       % Module: a clause of the block was refused
:- dynamic lpad_prob_pred/3.        % Module, Name, Arity
:- dynamic lpad_object/2.           % Module, Theory
:- dynamic lpad_fo_number/4.        % Module, ClauseId, TermCount, FoNumber
:- dynamic lpad_counter/3.          % Module, Name, Value
:- dynamic lpad_dirty/1.            % Module: rules added since the last compile
:- dynamic lpad_guarded/4.          % Module, ClauseId, HeadTerms, BodyTerms
:- dynamic lpad_known/2.            % Module, Atom: the theory has this atom
:- dynamic lpad_fresh/1.            % Module: an atom is new since the last compile

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
    foldl([_-P, S0, S]>>(S is S0 + P), Heads, 0.0, Sum),
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
% body goal is a call made while grounding.
install_program(M, Clauses) :-
    findall(N/A, ( member(Hs-_-_, Clauses), member(H-_, Hs),
                   functor(H, N, A) ), Preds0),
    sort(Preds0, Preds),
    foldl(classify_clause(Preds), Clauses, Classified, 1, _),
    forget_program(M),
    forall(member(N/A, Preds), assertz(lpad_prob_pred(M, N, A))),
    retractall(lpad_clause(M, _, _, _, _)),
    forall(member(lpad_clause(_, Id, Hs, B, W), Classified),
           assertz(lpad_clause(M, Id, Hs, B, W))),
    abolish_all_tables.

classify_clause(Preds, Heads-Raw-Where, lpad_clause(_, Id, Heads, Body, Where), Id, Next) :-
    Next is Id + 1,
    body_literals(Raw, Preds, Where, Body).

body_literals(true, _, _, []) :- !.
body_literals((A, B), Preds, Where, Body) :-
    !,
    body_literals(A, Preds, Where, BA),
    body_literals(B, Preds, Where, BB),
    append(BA, BB, Body).
body_literals(G, _, Where, _) :-
    var(G),
    !,
    lpad_error(variable_goal, Where).
body_literals(\+ G, Preds, Where, [Lit]) :-
    !,
    (   var(G) -> lpad_error(variable_goal, Where) ; true ),
    (   prob_goal(G, Preds) -> Lit = neg(G) ; Lit = call(\+ G) ).
body_literals(G, Preds, Where, [Lit]) :-
    (   prob_goal(G, Preds)
    ->  Lit = pos(G)
    ;   mentions_prob_goal(G, Preds)
    ->  lpad_error(unsupported_body(G), Where)
    ;   Lit = call(G)
    ).

prob_goal(G, Preds) :-
    callable(G),
    functor(G, N, A),
    memberchk(N/A, Preds).

% Control constructs around program atoms would need worlds of their own.
mentions_prob_goal(G, Preds) :-
    compound(G),
    control(G),
    G =.. [_ | Args],
    member(Arg, Args),
    nonvar(Arg),
    (   prob_goal(Arg, Preds) -> true ; mentions_prob_goal(Arg, Preds) ).

% Drops the module's program and its theory object.
forget_program(M) :-
    retractall(lpad_prob_pred(M, _, _)),
    forget_theory(M).

forget_theory(M) :-
    forall(retract(lpad_object(M, T)), catch(cplogic:pelm_free(T), _, true)),
    retractall(lpad_fo_number(M, _, _, _)),
    retractall(lpad_counter(M, _, _)),
    retractall(lpad_dirty(M)),
    retractall(lpad_guarded(M, _, _, _)),
    retractall(lpad_known(M, _)),
    retractall(lpad_fresh(M)).

                 /*******************************
                 *           QUERIES            *
                 *******************************/

%!  prob(:Query, -Prob) is det.
%!  prob(:Query, +Evidence, -Prob) is det.
%!  prob(:Query, +Evidence, -Prob, +Options) is det.
%
%   Prob is the probability of the ground atom Query given Evidence, a list
%   of ground atoms observed true and `\+ Atom` observed false. Options:
%   method(cf|tables|cpts|cfme) and elimination(cst|absorption).
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
    with_mutex(cplogic_lpad,
               query_program(PM, Q, EvAtoms, EvTerms, Method, Elim, P0)),
    (   P0 =:= 0.0, EvTerms \== []
    ->  check_evidence(PM, EvTerms, Method, Elim)
    ;   true
    ),
    P = P0.

program_module(M, M) :-
    lpad_prob_pred(M, _, _),
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
    catch(ground_atoms(M, T, [Q | EvAtoms]), E,
          ( forget_theory(M), throw(E) )),
    refresh_compilation(M, T, [Q | EvAtoms]),
    silent_query(T, Q, EvTerms, Method, Elim, P).

% The module announces every evidence atom on the current output; prob/3
% answers with a number alone.
silent_query(T, Q, EvTerms, Method, Elim, P) :-
    cplogic:vorn_cp_theory_set_settings(T, 1, 0, Method, Elim, none),
    with_output_to(string(_),
                   cplogic:vorn_cp_theory_query_silent(T, Q, EvTerms, P)).

% P(evidence) = 0 shows as an all-zero answer; the chain rule tells it from
% a query that is false given possible evidence.
check_evidence(M, EvTerms, Method, Elim) :-
    check_evidence(EvTerms, [], M, Method, Elim).

check_evidence([], _, _, _, _).
check_evidence([e(A, V) | Rest], Seen, M, Method, Elim) :-
    with_mutex(cplogic_lpad,
               ( theory_object(M, T),
                 silent_query(T, A, Seen, Method, Elim, PA) )),
    (   V =:= 1 -> PV = PA ; PV is 1 - PA ),
    (   PV =< 1.0e-12
    ->  findall(L, ( member(e(X, W), [e(A, V) | Seen]),
                     ( W =:= 1 -> L = X ; L = (\+ X) ) ), Ls),
        throw(error(cplogic_error(contradictory_evidence(Ls), evidence), _))
    ;   check_evidence(Rest, [e(A, V) | Seen], M, Method, Elim)
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
    maplist(check_query, Atoms),
    with_mutex(cplogic_lpad,
               ( theory_object(PM, T),
                 catch(ground_atoms(PM, T, Atoms), E,
                       ( forget_theory(PM), throw(E) )),
                 refresh_compilation(PM, T, Atoms) )).

theory_object(M, T) :-
    lpad_object(M, T),
    !.
theory_object(M, T) :-
    cplogic:pelm_new(vorn_cp_theory, T),
    assertz(lpad_object(M, T)).

% A rule added after a compile enters the theory's compiled form only when
% the theory registers a new atom: when the new rules and the query bring
% none, give it one.
refresh_compilation(M, T, QueryAtoms) :-
    note_atoms(M, QueryAtoms),
    (   retract(lpad_dirty(M)), \+ lpad_fresh(M)
    ->  next_counter(M, tick, N),
        cplogic:vorn_cp_theory_add_event(T, e([h(lpad_refresh_(N), 0.0)], []))
    ;   true
    ),
    retractall(lpad_fresh(M)).

note_atoms(M, Atoms) :-
    forall(( member(A, Atoms), \+ lpad_known(M, A) ),
           ( assertz(lpad_known(M, A)),
             ( lpad_fresh(M) -> true ; assertz(lpad_fresh(M)) ) )).

                 /*******************************
                 *           GROUNDING          *
                 *******************************/

ground_atoms(M, T, Atoms) :-
    forall(member(A, Atoms), ground_atom(M, T, A)).

% The theory's atom table marks an atom 1 while its clauses are expanded and
% 2 when done: meeting a 1 again means a cycle through the rules.
ground_atom(M, T, A) :-
    cplogic:vorn_cp_theory_atom_in_table(T, A, Status),
    (   Status =:= 2
    ->  true
    ;   Status =:= 1
    ->  throw(error(cplogic_error(cycle(A), A), _))
    ;   forall(clause_for_head(M, A, Id, Heads, Body, Where),
               ground_clause(M, T, Id, Heads, Body, Where)),
        cplogic:vorn_cp_theory_atom_table_success(T, A)
    ).

clause_for_head(M, A, Id, Heads, Body, Where) :-
    lpad_clause(M, Id, Heads, Body, Where),
    member(A-_, Heads).

% Every way the body can hold gives one grounding; its atoms are grounded in
% turn.
ground_clause(M, T, Id, Heads, Body, Where) :-
    forall(solve_body(Body, M, Where, Lits),
           add_grounding(M, T, Id, Heads, Lits, Where)).

solve_body([], _, _, []).
solve_body([L | Ls], M, Where, Lits) :-
    solve_literal(L, M, Where, Lits, Tail),
    solve_body(Ls, M, Where, Tail).

solve_literal(pos(A), M, _, [pos(A) | T], T) :-
    possible(M, A).
solve_literal(neg(A), _, Where, [neg(A) | T], T) :-
    (   ground(A)
    ->  true
    ;   throw(error(cplogic_error(nonground_negation(\+ A), Where), _))
    ).
solve_literal(call(G), M, _, T, T) :-
    call_goal(M, G).

add_grounding(M, T, Id, Heads0, Lits0, Where) :-
    (   ground(Heads0)
    ->  true
    ;   throw(error(cplogic_error(nonground_head(Heads0), Where), _))
    ),
    (   ground(Lits0)
    ->  true
    ;   throw(error(cplogic_error(nonground_body(Lits0), Where), _))
    ),
    merge_heads(Heads0, Heads),
    % A body is a set of literals: substitutions that give the same set give
    % the same grounding, which the theory then takes once.
    sort(Lits0, Lits),
    (   member(pos(A), Lits), memberchk(neg(A), Lits)
    ->  true                            % the body can never hold
    ;   add_ground_rule(M, T, Id, Heads, Lits),
        forall(( member(L, Lits), arg(1, L, B) ), ground_atom(M, T, B))
    ).

% Equal atoms in one head pool their probabilities.
merge_heads(Heads0, Heads) :-
    foldl(merge_head, Heads0, [], Heads).

merge_head(A-P, Acc0, Acc) :-
    (   append(Pre, [A-Q | Post], Acc0)
    ->  S is P + Q,
        append(Pre, [A-S | Post], Acc)
    ;   append(Acc0, [A-P], Acc)
    ).

% A rule with a negated literal gets its own event: a fresh first head atom
% keeps it from joining the events of other rules, and a companion rule of
% probability 0, exclusive with it through an atom that nothing causes, makes
% the event hold two rules. Both are exact: the fresh atoms never hold.
add_ground_rule(M, T, Id, Heads, Lits) :-
    maplist(head_term, Heads, HTerms),
    maplist(body_term, Lits, BTerms),
    (   memberchk(neg(_), Lits)
    ->  (   lpad_guarded(M, Id, HTerms, BTerms)
        ->  true                        % met before through another head atom
        ;   assertz(lpad_guarded(M, Id, HTerms, BTerms)),
            add_guarded_rule(M, T, Id, HTerms, BTerms)
        )
    ;   add_ground_event(M, T, Id, HTerms, BTerms)
    ).

add_guarded_rule(M, T, Id, HTerms, BTerms) :-
    next_counter(M, rule, K),
    Own = lpad_rule_(K),
    Off = lpad_off_(K),
    maplist([h(A, _), h(A, 0.0)]>>true, HTerms, ZTerms),
    append(BTerms, [\+ Off], Guarded),
    add_ground_event(M, T, Id-guarded, [h(Own, 0.0) | HTerms], Guarded),
    add_ground_event(M, T, Id-companion, [h(Own, 0.0) | ZTerms], [Off]).

head_term(A-P, h(A, P)).

literal_atom(\+ A, A) :- !.
literal_atom(A, A).

body_term(pos(A), A).
body_term(neg(A), \+ A).

add_ground_event(M, T, Key, HTerms, BTerms) :-
    length(HTerms, NH),
    length(BTerms, NB),
    Count is NH + NB,
    fo_number(M, T, Key, Count, Fo),
    cplogic:vorn_cp_theory_add_ground_event(T, g(Fo, HTerms, BTerms)),
    findall(A, ( member(h(A, _), HTerms) ; member(L, BTerms), literal_atom(L, A) ), Atoms),
    note_atoms(M, Atoms),
    (   lpad_dirty(M) -> true ; assertz(lpad_dirty(M)) ).

% Groundings of one clause with the same number of terms share a first-order
% event number, under which the theory drops repeated groundings.
fo_number(M, _, Key, Count, Fo) :-
    lpad_fo_number(M, Key, Count, Fo),
    !.
fo_number(M, T, Key, Count, Fo) :-
    next_counter(M, fo, Fo),
    assertz(lpad_fo_number(M, Key, Count, Fo)),
    cplogic:vorn_cp_theory_add_fo_event(T, Fo, Count).

next_counter(M, Name, N) :-
    (   retract(lpad_counter(M, Name, N0)) -> N is N0 + 1 ; N = 0 ),
    assertz(lpad_counter(M, Name, N)).

%   possible(+Module, ?Atom): Atom has a derivation when negated literals
%   are ignored, so it is true in some world. Tabled, so that recursive
%   programs terminate.
:- table possible/2.

possible(M, A) :-
    lpad_clause(M, _, Heads, Body, _),
    member(A-P, Heads),
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
    [ 'the evidence ~q is contradictory: its probability is 0'-[Ls] ].
culprit(cycle(A)) -->
    [ 'the ground program has a cycle through its rules at ~q'-[A] ].
culprit(no_program(M)) -->
    [ 'module ~q has no LPAD program (use begin_lpad/end_lpad or lpad_load/1)'-[M] ].
