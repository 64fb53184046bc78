:- module(cplogic_read,
          [ read_program/3,             % +File, :OnClause, +Options
            program_mode/2,             % +File, -Mode
            check_clause/2,             % +Clause, +Where
            check_clause/3,             % +Clause, +Where, +VarNames
            check_clause_head/3,        % +Clause, +Where, +VarNames
            check_no_argumentless/2,    % +Term, +Where
            check_safe_body_goal/2,     % :Goal, +Where
            check_safe_body_goal/3      % :Goal, +Where, +VarNames
          ]).

/** <module> Reading LPAD program files

Reads a program file as a stream, one clause at a time, so that a file of
any size costs the memory of its largest clause. Every error names its
cause: the file and line of the clause for a program error, the reason
for a file that cannot be read as a program.

Where a clause stands is `File:Line`, File the absolute path. Errors:

  - error(existence_error(source_sink, Path), _): no such file.
  - error(permission_error(open, source_sink, Path), _): not readable.
  - error(cplogic_error(directory, Path), _): a directory.
  - error(cplogic_error(not_regular_file, Path), _): a FIFO, socket or
    device (opening one could block for ever).
  - error(cplogic_error(not_text(Why), Path:Line), _): a NUL byte or
    bytes that are not UTF-8 (Why is nul_byte or invalid_utf8).
  - error(syntax_error(What), file(Path, Line, LinePos, CharNo)): a clause
    that is not Prolog syntax.
  - error(cplogic_error(unreadable_clause(resource_error(R)), Path:Line), _):
    a clause too deep or too large to read (R is c_stack for nesting).
  - error(cplogic_error(Block, Path:Line), _), Block one of second_block,
    unopened_block, unclosed_block: begin_lpad/end_lpad directives that
    do not make one block.
  - error(cplogic_error(variable_body_goal(Var), Where), _),
    error(cplogic_error(nonfinite_probability(Expr, Class), Where), _),
    error(cplogic_error(argumentless_compound(Term), Where), _): clause
    checks.
  - error(cplogic_error(unsafe_goal(Goal, Reason), Where), _): a body
    goal refused in safe mode.

Safe mode is for program files from elsewhere (lpad_load/3 with
safe(true), `bin/cplogic --safe`): before a program is installed, every
body goal that runs as Prolog while grounding (not the program's own
atoms) goes through check_safe_body_goal/2, and a file with
begin_lpad/end_lpad blocks is consulted with `load_files(Module:File,
[sandboxed(true)])`, which refuses unsafe directives. This module
declares begin_lpad, end_lpad and loading the cplogic library safe
directives for that load.
*/

:- use_module(library(error)).
:- use_module(library(option)).
:- use_module(library(apply)).
:- use_module(library(lists)).
:- use_module(library(sandbox)).

% Arithmetic compiled inline (the flag holds for this file only).
:- set_prolog_flag(optimise, true).

:- meta_predicate
    read_program(+, 3, +),
    check_safe_body_goal(:, +),
    check_safe_body_goal(:, +, +).

:- multifile
    prolog:message//1,
    user:message_hook/3,
    sandbox:safe_directive/1.
:- dynamic user:message_hook/3.

% reading(Stream): Stream is being read here; bad_bytes(Stream, Line):
% the decoder met bytes that are not UTF-8 at Line.
:- thread_local reading/1, bad_bytes/2.

                 /*******************************
                 *       READING A PROGRAM      *
                 *******************************/

%!  read_program(+File, :OnClause, +Options) is semidet.
%
%   Calls call(OnClause, Term, Where) for every term of File in order,
%   directives `(:- D)` included, Where = Path:Line of the term's first
%   character. Fails when OnClause fails (reading stops there). Options:
%
%     - variable_names(true): call(OnClause, Term, Where, VarNames)
%       instead, VarNames as read_term/3 gives them.
%     - module(M): read with the operators and syntax flags of M
%       (default user). An op/3 directive that OnClause runs in M holds
%       for the clauses after it.
%
%   A file whose first line starts with "% " may lead its clauses with
%   "(p) " or ";", as a saved theory is written. An encoding/1 directive
%   switches the stream's encoding, as consult/1 does.
read_program(File, OnClause, Options) :-
    option(variable_names(WithNames), Options, false),
    must_be(boolean, WithNames),
    option(module(M), Options, user),
    must_be(atom, M),
    with_program_stream(File, Path, In,
                        ( saved_theory(In, Saved),
                          read_loop(ctx(In, Path, M, false, Saved),
                                    call_clause(WithNames, OnClause), none, _)
                        )).

call_clause(false, OnClause, Term, Where, _, S, S) :-
    call(OnClause, Term, Where),
    !.
call_clause(true, OnClause, Term, Where, Names, S, S) :-
    call(OnClause, Term, Where, Names),
    !.

%!  program_mode(+File, -Mode) is det.
%
%   Mode is `prolog` when the file's directives mark one block with
%   `:- begin_lpad.` and `:- end_lpad.` (the file is ordinary Prolog to
%   consult), `lpad` when they mark none (the whole file is the program).
%   Only directives count, so words in comments or quoted text do not;
%   clauses that are not Prolog syntax are skipped here and left to the
%   reader of the program.
program_mode(File, Mode) :-
    with_program_stream(File, Path, In,
                        ( saved_theory(In, Saved),
                          read_loop(ctx(In, Path, user, true, Saved),
                                    block_directive, none, Blocks)
                        )),
    blocks_mode(Blocks, Path, Mode).

% block_directive(+Term, +Where, +Names, +State0, -State): State is none,
% open(Line) or closed.
block_directive(Term, Path:Line, _, S0, S) :-
    (   Term = (:- D), block_goal(D, Kind)
    ->  block_transition(Kind, S0, Path:Line, S)
    ;   S = S0
    ).

block_goal(D, Kind) :-
    strip_module(D, _, G),
    memberchk(G, [begin_lpad, end_lpad]),
    Kind = G.

block_transition(begin_lpad, none, _:Line, open(Line)) :- !.
block_transition(begin_lpad, _, Where, _) :-
    reader_error(second_block, Where).
block_transition(end_lpad, open(_), _, closed) :- !.
block_transition(end_lpad, _, Where, _) :-
    reader_error(unopened_block, Where).

blocks_mode(none, _, lpad).
blocks_mode(closed, _, prolog).
blocks_mode(open(Line), Path, _) :-
    reader_error(unclosed_block, Path:Line).

% with_program_stream(+File, -Path, -In, :Goal) opens File for reading
% after checking what it is, and runs Goal while the decoder's complaints
% about In are noted instead of printed.
with_program_stream(File, Path, In, Goal) :-
    program_path(File, Path),
    check_program_file(Path),
    setup_call_cleanup(
        ( open(Path, read, In, [encoding(utf8)]),
          assertz(reading(In))
        ),
        Goal,
        ( retractall(reading(In)),
          retractall(bad_bytes(In, _)),
          close(In)
        )).

program_path(File, Path) :-
    (   var(File)
    ->  instantiation_error(File)
    ;   is_of_type(text, File)
    ->  true
    ;   compound(File)                  % an alias such as library(x)
    ->  true
    ;   type_error(file_name, File)
    ),
    (   absolute_file_name(File, Path0, [access(exist), file_errors(fail)])
    ->  Path = Path0
    ;   absolute_file_name(File, Path)
    ).

% Opening a FIFO blocks until a writer comes, so the kind of file is
% decided before it is opened.
check_program_file(Path) :-
    (   exists_file(Path)
    ->  (   access_file(Path, read)
        ->  true
        ;   permission_error(open, source_sink, Path)
        )
    ;   exists_directory(Path)
    ->  reader_error(directory, Path)
    ;   access_file(Path, exist)
    ->  reader_error(not_regular_file, Path)
    ;   existence_error(source_sink, Path)
    ).

% read_loop(+Ctx, :OnTerm, +S0, -S): folds OnTerm(Term, Where, Names) over
% the terms of the stream. Tail recursive and without choice points, so
% that the length of the file costs no stack. Ctx is ctx(In, Path, Module,
% Tolerate, Saved): Tolerate skips clauses that are not Prolog syntax,
% Saved drops the rule prefixes of a saved theory.
read_loop(Ctx, OnTerm, S0, S) :-
    (   next_term(Ctx, Term, Where, Names)
    ->  (   Term == end_of_file
        ->  S = S0
        ;   arg(1, Ctx, In),
            encoding_directive(Term, In),
            call(OnTerm, Term, Where, Names, S0, S1),
            read_loop(Ctx, OnTerm, S1, S)
        )
    ;   read_loop(Ctx, OnTerm, S0, S)     % a skipped clause
    ).

% next_term(+Ctx, -Term, -Where, -Names) fails for a skipped clause. A
% clause nested too deeply for the reader's C stack raises a resource
% error, which is located at the line where the clause starts.
next_term(ctx(In, Path, M, Tolerate, Saved), Term, Path:Line, Names) :-
    (   Saved == true
    ->  skip_layout(In, C),
        saved_prefix(C, In)
    ;   true
    ),
    character_count(In, From),
    catch(read_term(In, Term,
                    [ term_position(Pos), variable_names(Names), module(M) ]),
          error(Formal, Context),
          true),
    bytes_were_text(In, Path),
    (   var(Formal)
    ->  stream_position_data(line_count, Pos, Line)
    ;   Formal = syntax_error(What)
    ->  Tolerate == false,
        located_syntax_error(Path, What, Context)
    ;   Formal = resource_error(_)
    ->  clause_start(In, Path, From, Start),
        reader_error(unreadable_clause(Formal), Path:Start)
    ;   throw(error(Formal, Context))
    ).

% clause_start(+In, +Path, +From, -Line): the line of the first character
% after character From that is not layout or a comment. Found by reading
% the file again, so that reading each clause costs no more than the read.
clause_start(In, Path, From, Line) :-
    stream_property(In, encoding(Enc)),
    setup_call_cleanup(
        open(Path, read, S, [encoding(Enc)]),
        ( read_string(S, From, _),
          skip_layout(S, _),
          line_count(S, Line)
        ),
        close(S)).

bytes_were_text(In, Path) :-
    (   bad_bytes(In, Line)
    ->  reader_error(not_text(invalid_utf8), Path:Line)
    ;   true
    ).

% Binary content usually shows first as a syntax error: a NUL byte in the
% file names the file as not text instead.
located_syntax_error(Path, What, Context) :-
    (   nul_byte_line(Path, Line)
    ->  reader_error(not_text(nul_byte), Path:Line)
    ;   Context = stream(_, Line, LinePos, CharNo)
    ->  throw(error(syntax_error(What), file(Path, Line, LinePos, CharNo)))
    ;   throw(error(syntax_error(What), Context))
    ).

nul_byte_line(Path, Line) :-
    setup_call_cleanup(
        open(Path, read, In, [encoding(octet)]),
        nul_in_stream(In, 1, Line),
        close(In)).

nul_in_stream(In, Line0, Line) :-
    peek_code(In, C),                   % fills the buffer
    C \== -1,
    read_pending_codes(In, Codes, []),
    (   append(Before, [0 | _], Codes)
    ->  include(==(0'\n), Before, NLs),
        length(NLs, N),
        Line is Line0 + N
    ;   include(==(0'\n), Codes, NLs),
        length(NLs, N),
        Line1 is Line0 + N,
        nul_in_stream(In, Line1, Line)
    ).

% The decoder reports bytes that are not UTF-8 as a warning while it goes
% on; for a stream read here the warning is noted and becomes the error.
user:message_hook(io_warning(In, _), warning, _) :-
    reading(In),
    !,
    (   bad_bytes(In, _)
    ->  true
    ;   line_count(In, Line),
        assertz(bad_bytes(In, Line))
    ).

encoding_directive(Term, In) :-
    (   Term = (:- encoding(Enc)), atom(Enc)
    ->  set_stream(In, encoding(Enc))
    ;   true
    ).

% A saved theory starts with "% name" and may lead a rule with "(p) " or
% ";": these are dropped before a rule is read.
saved_theory(In, Saved) :-
    (   peek_string(In, 2, "% ") -> Saved = true ; Saved = false ).

% skip_layout(+In, -Code): blanks and line comments before a clause are
% skipped before the rule prefixes of a saved theory, and to find where a
% clause starts; Code is the next character's, -1 at the end.
skip_layout(In, Code) :-
    peek_code(In, C),
    (   C =:= -1
    ->  Code = C
    ;   layout_code(C)
    ->  get_code(In, _),
        skip_layout(In, Code)
    ;   C =:= 0'%
    ->  skip(In, 0'\n),
        skip_layout(In, Code)
    ;   Code = C
    ).

% Common layout is decided by indexing; any other character by its type.
layout_code(C) :-
    (   C < 128
    ->  ascii_layout(C)
    ;   code_type(C, space)
    ).

ascii_layout(0'\s).
ascii_layout(0'\n).
ascii_layout(0'\t).
ascii_layout(0'\r).
ascii_layout(0'\v).
ascii_layout(0'\f).

% saved_prefix(+Code, +In): only a clause that starts with "(" is compared
% with the prefix: peeking at a string costs more than reading a clause.
saved_prefix(C, In) :-
    (   C =:= 0'(
    ->  (   peek_string(In, 4, "(p) ") -> read_string(In, 4, _) ; true )
    ;   C =:= 0';
    ->  get_code(In, _)
    ;   true
    ).

reader_error(Culprit, Where) :-
    throw(error(cplogic_error(Culprit, Where), _)).

                 /*******************************
                 *         CLAUSE CHECKS        *
                 *******************************/

%!  check_clause(+Clause, +Where) is det.
%!  check_clause(+Clause, +Where, +VarNames) is det.
%
%   Raises an error naming the clause at Where for what the program
%   reader would otherwise take wrongly: a body goal that is a variable
%   (in the body's conjunction or under \+), and a head probability that
%   evaluates to nan or an infinity (heads `H:P` and `P::H`), and a
%   compound without arguments such as `f()` anywhere in the clause, which
%   functor/3 and =../2 refuse. VarNames, as read_term/3 gives them, name
%   the variables in the message.
check_clause(Clause, Where) :-
    check_clause(Clause, Where, []).

check_clause(Clause, Where, Names) :-
    check_clause_head(Clause, Where, Names),
    (   Clause = (_ :- Body)
    ->  no_argumentless(Body, Where)
    ;   true
    ).

%!  check_clause_head(+Clause, +Where, +VarNames) is det.
%!  check_no_argumentless(+Term, +Where) is det.
%
%   check_clause/3 is check_clause_head/3 and then, for a clause with a
%   body, check_no_argumentless/2 on the body: a reader that walks the body
%   anyway checks its terms there, in the same order.
check_clause_head(Clause, Where, Names) :-
    (   Clause = (Head :- Body)
    ->  (   ground(Body) -> true ; check_body(Body, Where, Names) )
    ;   Head = Clause
    ),
    check_head(Head, Where),
    no_argumentless(Head, Where).

check_no_argumentless(Term, Where) :-
    no_argumentless(Term, Where).

% The first compound without arguments in pre-order, as sub_term/2 would
% find it, in one pass without choice points; the last argument is a last
% call, so that long conjunctions and lists cost no stack.
no_argumentless(T, Where) :-
    (   compound(T)
    ->  compound_name_arity(T, _, A),
        no_argumentless(A, T, Where)
    ;   true
    ).

no_argumentless(1, T, Where) :-
    !,
    arg(1, T, X),
    no_argumentless(X, Where).
no_argumentless(2, T, Where) :-
    !,
    arg(1, T, X),
    no_argumentless(X, Where),
    arg(2, T, Y),
    no_argumentless(Y, Where).
no_argumentless(0, T, Where) :-
    !,
    reader_error(argumentless_compound(T), Where).
no_argumentless(A, T, Where) :-
    no_argumentless_args(1, A, T, Where).

no_argumentless_args(I, A, T, Where) :-
    arg(I, T, X),
    (   I =:= A
    ->  no_argumentless(X, Where)
    ;   no_argumentless(X, Where),
        I1 is I + 1,
        no_argumentless_args(I1, A, T, Where)
    ).

check_body(G, Where, Names) :-
    (   var(G)
    ->  named(G, Names, Named),
        reader_error(variable_body_goal(Named), Where)
    ;   G = (A, B)
    ->  check_body(A, Where, Names),
        check_body(B, Where, Names)
    ;   G = (\+ A)
    ->  check_body(A, Where, Names)
    ;   true
    ).

check_head(H, Where) :-
    (   var(H)
    ->  true
    ;   H = (A ; B)
    ->  check_head(A, Where),
        check_head(B, Where)
    ;   ( H = (_ : P) ; H = ::(P, _) )
    ->  check_probability(P, Where)
    ;   true
    ).

check_probability(P, Where) :-
    (   (   float(P)
        ->  V = P                       % evaluates to itself
        ;   \+ integer(P),
            ground(P),
            catch(V is P, _, fail)
        ),
        float(V),
        float_class(V, Class),
        memberchk(Class, [nan, infinite])
    ->  reader_error(nonfinite_probability(P, Class), Where)
    ;   true
    ).

%!  check_safe_body_goal(:Goal, +Where) is det.
%!  check_safe_body_goal(:Goal, +Where, +VarNames) is det.
%
%   Raises error(cplogic_error(unsafe_goal(Goal, Reason), Where), _)
%   unless library(sandbox) accepts Goal, with the predicates its module
%   defines, as safe to run. A goal whose predicate is not defined is
%   safe: it is false in the program. Reason is the sandbox's error.
check_safe_body_goal(Goal, Where) :-
    check_safe_body_goal(Goal, Where, []).

check_safe_body_goal(M:Goal, Where, Names) :-
    catch(safe_goal(M:Goal), Error, true),
    (   var(Error)
    ->  true
    ;   Error = error(existence_error(procedure, _), sandbox(_, []))
    ->  true
    ;   Error = error(Reason, _)
    ->  named(Goal, Names, Named),
        reader_error(unsafe_goal(Named, Reason), Where)
    ;   throw(Error)
    ).

sandbox:safe_directive(M:Directive) :-
    prolog_load_context(module, M),
    safe_program_directive(Directive).

safe_program_directive(begin_lpad).
safe_program_directive(end_lpad).
safe_program_directive(use_module(Source)) :-
    is_cplogic_library(Source).
safe_program_directive(use_module(Source, _)) :-
    is_cplogic_library(Source).

% Loading the cplogic library itself (by any path) runs no program code.
is_cplogic_library(Source) :-
    ground(Source),
    prolog_load_context(directory, Dir),
    absolute_file_name(Source, File, [ file_type(prolog), access(read),
                                     relative_to(Dir), file_errors(fail) ]),
    module_property(cplogic, file(File)).

% A copy of Term whose variables show the names they have in the clause.
named(Term, Names, Named) :-
    copy_term(Term-Names, Named-Copy),
    maplist(name_variable, Copy).

% No lambda here: loading library(yall) would change how the user's files
% that are loaded later compile their lambdas.
name_variable(Name=Var) :-
    (   var(Var)
    ->  Var = '$VAR'(Name)
    ;   true
    ).

                 /*******************************
                 *           MESSAGES           *
                 *******************************/

prolog:message(error(cplogic_error(Culprit, Where), _)) -->
    { reader_culprit(Culprit) },
    location(Where),
    culprit(Culprit).

reader_culprit(C) :-
    nonvar(C),
    functor(C, Name, _),
    memberchk(Name, [ directory, not_regular_file, not_text, unreadable_clause, second_block,
                      unopened_block, unclosed_block, variable_body_goal,
                      nonfinite_probability, argumentless_compound, unsafe_goal ]).

location(File:Line) --> !, [ '~w:~w: '-[File, Line] ].
location(File) --> [ '~w: '-[File] ].

culprit(directory) --> [ 'is a directory, not a program file' ].
culprit(not_regular_file) -->
    [ 'is not a regular file (a FIFO, socket or device), not a program file' ].
culprit(not_text(nul_byte)) -->
    [ 'not a text file: a NUL byte on this line' ].
culprit(not_text(invalid_utf8)) -->
    [ 'not a text file: bytes on this line are not UTF-8' ].
culprit(unreadable_clause(resource_error(c_stack))) -->
    !,
    [ 'the clause from this line is nested too deeply to be read' ].
culprit(unreadable_clause(Formal)) -->
    [ 'the clause from this line cannot be read: ~p'-[Formal] ].
culprit(second_block) -->
    [ 'a second begin_lpad: a file holds one begin_lpad/end_lpad block' ].
culprit(unopened_block) --> [ 'end_lpad without a begin_lpad before it' ].
culprit(unclosed_block) --> [ 'begin_lpad without an end_lpad after it' ].
culprit(variable_body_goal(V)) -->
    [ 'body goal ~p is a variable: a body goal must be an atom or a call'-[V] ].
culprit(nonfinite_probability(P, nan)) -->
    [ 'probability ~p is not a number (nan)'-[P] ].
culprit(nonfinite_probability(P, infinite)) -->
    [ 'probability ~p is infinite, not a number between 0 and 1'-[P] ].
culprit(argumentless_compound(T)) -->
    [ '~q is a compound term without arguments: write it as an atom'-[T] ].
culprit(unsafe_goal(G, Reason)) -->
    [ 'body goal ~p is refused in safe mode: '-[G] ],
    unsafe_reason(Reason).

unsafe_reason(permission_error(call, sandboxed, Called)) -->
    !,
    { indicator(Called, PI) },
    [ 'it calls ~q, which is not known to be safe'-[PI] ].
unsafe_reason(instantiation_error) -->
    !,
    [ 'what it calls is not known before it runs' ].
unsafe_reason(existence_error(procedure, Called)) -->
    !,
    { indicator(Called, PI) },
    [ 'it calls ~q, which is not defined'-[PI] ].
unsafe_reason(Reason) -->
    [ '~q'-[Reason] ].

indicator(Goal, PI) :-
    (   Goal = M:G, callable(G)
    ->  functor(G, N, A), PI = M:N/A
    ;   callable(Goal)
    ->  functor(Goal, N, A), PI = N/A
    ;   PI = Goal
    ).
