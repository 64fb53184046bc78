% Random mutations of valid programs (deleted tokens, swapped operators,
% extreme numbers, deep terms) through lpad_load/1 and prob/3, with a fixed
% seed. Every case ends in an answer between 0 and 1 or an error term whose
% message prints, a load error's naming the file and line; the session goes
% on: the valid programs answer as before.
:- use_module(test_support).

cases(3000).

% program(Text, Queries): Queries = [Query-Evidence, ...].
program("sneezing(X):0.7 ; null:0.3 :- flu(X).
sneezing(X):0.6 :- hay_fever(X).
flu(bob):0.4. hay_fever(bob):0.2.
", [sneezing(bob)-[], flu(bob)-[sneezing(bob)]]).
program("burglary:0.1. earthquake:0.2.
alarm:0.9 :- burglary. alarm:0.4 :- earthquake.
calls(john):0.8 :- alarm. calls(john):1/20 :- \\+ alarm.
", [alarm-[], burglary-[calls(john)], calls(john)-[\+ earthquake]]).
program("edge(a, b):0.6. edge(b, c):0.7. edge(a, c):0.2 ; edge(c, d):0.3.
path(X, Y) :- edge(X, Y). path(X, Y) :- edge(X, Z), path(Z, Y).
reach(X):0.9 :- member(X, [b, c, d]), path(a, X), X \\== a.
size(N):0.5 :- between(1, 3, N), N * 2 > 3.
", [path(a, c)-[], reach(d)-[edge(a, b)], size(2)-[]]).
program("heads(C):0.5 ; tails(C):0.5 :- toss(C).
toss(c1). toss(c2):0.9.
two :- heads(c1), heads(c2). one :- heads(c1), \\+ heads(c2).
", [two-[], one-[\+ two], tails(c2)-[]]).

swap_ops([":-", ",", ";", ":", "\\+", "is", "=", "<", "*", "-", "/", "::", "->", "|", ".", "(", ")"]).
extreme_numbers(["1.0e308", "-1.0e308", "1.0e-320", "0", "-0.0", "-1", "2", "nan", "inf",
                 "-inf", "1.5NaN", "1.0Inf", "123456789012345678901234567890",
                 "0.5e", "0x7fffffffffffffff", "1r3", "0'a", "1.0e400", "1/0", "0/0"]).
deep_depths([50, 2000, 12000]).     % the theory's limit is 10,000 levels

% spans(+Text, -Spans): Spans = [span(Kind, From, To), ...], disjoint, of
% the tokens of Text: leaf (atom, variable, string), number, op (an
% operator or functor name) and stop (a clause's full stop).
spans(Text, Spans) :-
    setup_call_cleanup(open_string(Text, In),
                       clause_spans(In, Text, Spans, []),
                       close(In)).

clause_spans(In, Text, Spans, Tail) :-
    read_term(In, T, [subterm_positions(Pos)]),
    (   T == end_of_file
    ->  Spans = Tail
    ;   arg(2, Pos, To),
        sub_string(Text, Stop, 1, _, "."),
        Stop >= To,
        !,
        Stop1 is Stop + 1,
        pos_spans(Text, Pos, Spans, [span(stop, Stop, Stop1) | Rest]),
        clause_spans(In, Text, Rest, Tail)
    ).

pos_spans(Text, F-T, [span(Kind, F, T) | L], L) :-
    !,
    Len is T - F,
    sub_string(Text, F, Len, _, S),
    (   number_string(_, S) -> Kind = number ; Kind = leaf ).
pos_spans(_, string_position(F, T), [span(leaf, F, T) | L], L) :- !.
pos_spans(Text, term_position(_, _, FF, FT, Args), [span(op, FF, FT) | L0], L) :-
    !,
    foldl(pos_spans(Text), Args, L0, L).
pos_spans(Text, list_position(_, _, Elems, Tail), L0, L) :-
    !,
    foldl(pos_spans(Text), Elems, L0, L1),
    (   Tail == none -> L = L1 ; pos_spans(Text, Tail, L1, L) ).
pos_spans(_, _, L, L).

% mutate(+Text, -Mutated): one to three spans replaced, right to left so
% that the offsets of the others hold.
mutate(Text, Mutated) :-
    spans(Text, Spans),
    random_permutation(Spans, Shuffled),
    random_between(1, 3, K),
    length(Chosen, K), append(Chosen, _, Shuffled),
    sort(2, @>=, Chosen, RightToLeft),
    foldl(apply_mutation, RightToLeft, Text, Mutated).

apply_mutation(span(Kind, F, T), Text0, Text) :-
    replacement(Kind, New),
    sub_string(Text0, 0, F, _, Before), sub_string(Text0, T, _, 0, After),
    atomics_to_string([Before, New, After], Text).

replacement(Kind, New) :-
    random_between(1, 4, R),
    replacement(R, Kind, New).

replacement(1, _, "").                          % a deleted token
replacement(2, _, New) :-                       % an operator in its place
    swap_ops(Ops), random_member(Op, Ops),
    atomics_to_string([" ", Op, " "], New).
replacement(3, Kind, New) :-
    (   Kind == number
    ->  extreme_numbers(Ns), random_member(New, Ns)
    ;   replacement(1, Kind, New)
    ).
replacement(4, Kind, New) :-
    (   memberchk(Kind, [leaf, number])
    ->  deep_depths(Ds), random_member(D, Ds),
        random_member(Shape, [compound, negation, list]),
        deep_text(Shape, D, New)
    ;   replacement(2, Kind, New)
    ).

deep_text(compound, D, Text) :-
    repeated("f(", D, Open), repeated(")", D, Close),
    atomics_to_string([Open, "a", Close], Text).
deep_text(negation, D, Text) :-
    repeated("\\+ ", D, Negs), atomics_to_string([Negs, "a"], Text).
deep_text(list, D, Text) :-
    repeated("a, ", D, Elems), atomics_to_string(["[", Elems, "a]"], Text).

repeated(S, N, Text) :-
    length(L, N), maplist(=(S), L), atomics_to_string(L, Text).

% run_case(+File, +Text, +Queries, -Outcomes): Outcomes = [Phase-Result]
% with Result answer(P), error(E), other(E).
run_case(File, Text, Queries, Outcomes) :-
    setup_call_cleanup(open(File, write, S), write(S, Text), close(S)),
    outcome(lpad_load(fuzz_program:File), true, Load),
    (   Load == answer(true)
    ->  findall(query-R,
                ( member(Q-Ev, Queries),
                  outcome(prob(fuzz_program:Q, Ev, P), P, R) ),
                QOs),
        Outcomes = [load-Load | QOs]
    ;   Outcomes = [load-Load]
    ).

outcome(Goal, Value, Result) :-
    catch(( call_with_time_limit(3, Goal) -> Result = answer(Value) ; Result = failed ),
          E,
          (   E = error(_, _) -> Result = error(E) ; Result = other(E) )).

% tally(+File, +Phase-Result, +Counts0, -Counts)
tally(File, Phase-Result, C0, C) :-
    outcome_key(Result, Phase, File, Key),
    (   get_assoc(Key, C0, N0) -> true ; N0 = 0 ),
    N is N0 + 1, put_assoc(Key, C0, N, C).

outcome_key(answer(P), _, _, Key) :-
    (   P == true -> Key = loaded
    ;   number(P), P >= -1.0e-9, P =< 1 + 1.0e-9 -> Key = answer
    ;   Key = bad_answer(P)
    ).
outcome_key(failed, Phase, _, failed(Phase)).
outcome_key(other(E), Phase, _, other(Phase, E)).
outcome_key(error(E), Phase, File, Key) :-
    (   \+ message_prints(E)
    ->  Key = unprintable(E)
    ;   Phase == load, \+ names_file_and_line(E, File)
    ->  E = error(Formal, _), functor(Formal, Name, _),
        Key = unlocated(Name)
    ;   Key = error(Phase)
    ).

message_prints(E) :-
    catch(message_text(E, Text), _, fail),
    \+ sub_string(Text, _, _, _, "Unknown error term"),
    \+ sub_string(Text, _, _, _, "Unknown message").

names_file_and_line(E, File) :-
    message_text(E, Text),
    sub_string(Text, B, _, _, File),
    sub_string(Text, B, _, 0, FromFile),
    string_concat(File, Rest, FromFile),
    string_code(1, Rest, 0':), string_code(2, Rest, D), code_type(D, digit).

base_answers(Answers) :-
    findall(T-As,
            ( program(T, Qs),
              in_temp_dir(( absolute_file_name('base.pl', F),
                            run_case(F, T, Qs, [_ | As]) )) ),
            Answers).

:- begin_tests(fuzz).

test(mutated_programs) :-
    set_random(seed(1301)),
    base_answers(Before),
    findall(T-Qs, program(T, Qs), Programs),
    cases(N), numlist(1, N, Cases),
    empty_assoc(C0),
    flag(fuzz_printed, _, 0),
    setup_call_cleanup(
        asserta((user:message_hook(_, Kind, _) :- fuzz_printed(Kind)), Ref),
        in_temp_dir(( absolute_file_name('mutant.pl', File),
                      foldl(fuzz_case(Programs, File), Cases, C0, Counts) )),
        erase(Ref)),
    base_answers(After),
    assoc_to_list(Counts, Tally),
    flag(fuzz_printed, Printed, Printed),
    format(user_error, "~nfuzz: ~d cases, ~d messages printed by programs: ~q~n",
           [N, Printed, Tally]),
    assertion(After == Before),
    forall(member(Key-_, Tally),
           assertion(\+ memberchk(Key, [bad_answer(_), other(_, _), unprintable(_),
                                         unlocated(_)]))).

% Warnings and errors that the programs' own goals print (a list as a goal
% consults files) are counted instead.
fuzz_printed(Kind) :-
    memberchk(Kind, [error, warning]),
    flag(fuzz_printed, N, N + 1).

:- end_tests(fuzz).

fuzz_case(Programs, File, _, C0, C) :-
    random_member(Text-Queries, Programs),
    mutate(Text, Mutant),
    run_case(File, Mutant, Queries, Outcomes),
    foldl(tally(File), Outcomes, C0, C).
