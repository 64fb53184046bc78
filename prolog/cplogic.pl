:- module(cplogic,
          [ vorn_cp_theory_set_settings/6,   % +Theory, +CompileFlag, +Int,
                                             %   +Conversion, +Elimination, +Atom
            vorn_cp_theory_query_silent/4,   % +Theory, +Query, +Evidence, ?Prob
            vorn_cp_theory_print_graphviz/2, % +Theory, +FileAtom
            vorn_cp_theory_query/4,          % +Theory, +Query, +Evidence, ?Prob
            vorn_cp_theory_add_ground_event/2, % +Theory, +ground(FoEvent, Head, Body)
            vorn_cp_theory_compile/1,        % +Theory
            vorn_cp_theory_atom_table_success/2, % +Theory, +Atom
            vorn_cp_theory_save/2,           % +Theory, +FileAtom
            vorn_cp_theory_add_event/2,      % +Theory, +event(Head, Body)
            vorn_cp_theory_add_fo_event/3,   % +Theory, +FoEvent, +TermCount
            vorn_cp_theory_atom_in_table/3,  % +Theory, +Atom, ?Status
            pelm_new/2,                      % +TypeName, -Object
            pelm_new/3,                      % +TypeName, +InitTerm, -Object
            pelm_free/1,                     % +Object
            pelm_copy/2,                     % +Target, +Source
            pelm_print/1,                    % +Object
            cplogic_hugin_net/3,             % +Theory, +Query, +FileAtom
            cplogic_prob/4,                  % +Theory, +Query, +Evidence, -Prob
            cplogic_prob/5                   % +Theory, +Query, +Evidence, -Prob, +Options
          ]).

/** <module> Exact inference in CP-logic theories

A theory object is made with pelm_new(vorn_cp_theory, Theory) and filled
with events:

    event(Head, Body)
        Head is a list of h(Atom, Probability) (Probability a float),
        Body a list of ground atoms and \+ Atom.
    event(Head, Negated, Positive)
        The same with the body's atoms in two lists: the atoms of Negated
        negated, then those of Positive.
    ground(FoEvent, Head, Body)
        One grounding of first-order event FoEvent, announced before with
        vorn_cp_theory_add_fo_event(Theory, FoEvent, TermCount), TermCount
        being the number of head and body elements of each grounding.
        A grounding already added is ignored.

Atoms are ground terms of any kind (numbers and strings included), told
apart structurally: 'p(1)' and p(1) are two atoms.  Each is named by its
quoted text in saved theories, Graphviz and Hugin files.  Probabilities are
numbers in [0, 1]; the probabilities of a head sum to at most 1.

cplogic_prob(Theory, Query, Evidence, P) answers P(Query | Evidence),
Evidence a list of e(Atom, Value) with Value 1 (true) or 0 (false), and
prints nothing.  A query changes nothing in the theory: an atom the theory
does not know is false.  Evidence of probability 0 raises
error(cplogic_error(contradictory_evidence(Evidence), evidence), _).
vorn_cp_theory_query_silent/4 gives the same answers and errors;
vorn_cp_theory_query/4 also prints the evidence and the query's table.

cplogic_prob(Theory, Query, Evidence, P, Options) takes the options

    max_table_entries(N)
        The largest table the query may build: a positive integer, or inf
        for no bound.  Default 16777216 (2^24 entries, 128 MB), which every
        other predicate uses too.  A query that needs a larger table raises
        error(resource_error(table_entries), context(cplogic_prob/5, Msg)),
        Msg naming the size of the table and the limit.
    progress(Bool)
        With true, a query that runs for more than a second prints lines
        such as "% cplogic: eliminating 1200/5000" on user_error, at most
        four a second.  Default false.

Other options are ignored, so that one list can serve several libraries;
Name = Value is read as Name(Value).  A query, by any of the three
predicates, can be stopped by call_with_time_limit/2 or Ctrl-C: it ends
with that exception, and the theory answers the next query as before.  A table that does not fit in
memory raises resource_error(memory) for that call alone.

Files (vorn_cp_theory_save/2, vorn_cp_theory_print_graphviz/2,
cplogic_hugin_net/3) are written completely or the call raises
existence_error(source_sink, File) (a missing folder),
permission_error(open, source_sink, File) (no permission, a directory, a
read-only file system) or io_error(write, File) (a full disk), the message
being the system's reason.

A theory whose rules depend on themselves (a cycle through positive body
atoms) has no answer here: a query raises
error(cplogic_error(cycle(Atoms), theory), _), Atoms naming atoms of the
cycle.  The LPAD library rewrites cyclic programs before they get here.

Every predicate raises an ISO error term naming the argument at fault;
an object that was freed raises existence_error(vorn_cp_theory, Object).
The object is freed by pelm_free/1 or when Prolog no longer refers to it.

cplogic_hugin_net(Theory, Query, File) writes the Bayesian network that the
query builds, in the Hugin format.

Programs with annotated disjunctions and variables are written with
begin_lpad/end_lpad or loaded with lpad_load/1 and queried with prob/2,3,4
(module cplogic_lpad, re-exported here).
*/

:- use_module(library(lists)).

% The library built by the README's build (build/ at the repository root)
% is found next to this directory; CPLOGIC_LIBRARY names another one, and
% otherwise the foreign search path decides.
cplogic_library(Library) :-
    getenv('CPLOGIC_LIBRARY', Library),
    Library \== '',
    !.
cplogic_library(Library) :-
    source_file(cplogic:cplogic_library(_), Here),
    file_directory_name(Here, Dir),
    atomic_list_concat([Dir, '/../build/cplogic'], Base),
    file_name_extension(Base, so, Library0),
    exists_file(Library0),
    !,
    absolute_file_name(Library0, Library).
cplogic_library(foreign(cplogic)).

:- cplogic_library(Library),
   use_foreign_library(Library).

:- multifile prolog:error_message//1.

prolog:error_message(pelm_error(Text)) -->
    [ '~w'-[Text] ].

% LPAD programs on top of the predicates: begin_lpad/end_lpad, lpad_load/1,
% prob/2,3,4.
:- reexport(cplogic_lpad).

:- multifile prolog:message//1.

prolog:message(error(cplogic_error(cycle(Atoms), theory), _)) -->
    [ 'the theory\'s rules form a cycle through ~w; a cyclic program is answered through the LPAD library (lpad_load/1, prob/2), which rewrites its cycles'-[Atoms] ].
