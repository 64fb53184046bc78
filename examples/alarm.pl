% Burglary or earthquake sets off the alarm; John and Mary may call.
%
% Run from the repository root after building:  swipl examples/alarm.pl

:- use_module('../prolog/cplogic').
:- initialization(main, main).

% event(Head, Body): Head lists h(Atom, Probability), Body lists literals.
alarm_event(event([h(burglary, 0.1)], [])).
alarm_event(event([h(earthquake, 0.2)], [])).
% Two independent causes of the alarm.
alarm_event(event([h(alarm, 0.9)], [burglary])).
alarm_event(event([h(alarm, 0.4)], [earthquake])).
% Each neighbour calls mostly when the alarm rings, sometimes without it.
alarm_event(event([h(calls(john), 0.8)], [alarm])).
alarm_event(event([h(calls(john), 0.05)], [\+ alarm])).
alarm_event(event([h(calls(mary), 0.7)], [alarm])).
alarm_event(event([h(calls(mary), 0.01)], [\+ alarm])).

question(burglary, [], 'P(burglary)').
question(alarm, [], 'P(alarm)').
question(calls(john), [], 'P(john calls)').
question(burglary, [e(calls(john), 1), e(calls(mary), 1)],
         'P(burglary | john and mary call)').
question(earthquake, [e(calls(john), 1), e(calls(mary), 1)],
         'P(earthquake | john and mary call)').
question(burglary, [e(alarm, 1)], 'P(burglary | alarm)').
question(burglary, [e(alarm, 1), e(earthquake, 1)],
         'P(burglary | alarm, earthquake)').
question(alarm, [e(calls(john), 0), e(calls(mary), 0)],
         'P(alarm | nobody calls)').

main :-
    pelm_new(vorn_cp_theory, Theory),
    forall(alarm_event(Event), vorn_cp_theory_add_event(Theory, Event)),
    vorn_cp_theory_compile(Theory),
    forall(question(Query, Evidence, Text),
           ( with_output_to(string(_),
                            vorn_cp_theory_query_silent(Theory, Query, Evidence, P)),
             format("~w = ~4f~n", [Text, P])
           )).
