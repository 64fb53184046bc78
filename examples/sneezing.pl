% Sneezing with two causes: flu and hay fever.  Flu makes a patient either
% sneeze or cough (not both at once); hay fever only makes them sneeze.
%
% Run from the repository root after building:  swipl examples/sneezing.pl

:- use_module('../prolog/cplogic').
:- initialization(main, main).

sneezing_event(event([h(flu, 0.3)], [])).
sneezing_event(event([h(hay_fever, 0.2)], [])).
sneezing_event(event([h(sneezing, 0.6), h(coughing, 0.3)], [flu])).
sneezing_event(event([h(sneezing, 0.8)], [hay_fever])).

question(sneezing, [], 'P(sneezing)').
question(coughing, [], 'P(coughing)').
question(flu, [e(sneezing, 1)], 'P(flu | sneezing)').
question(hay_fever, [e(sneezing, 1)], 'P(hay fever | sneezing)').
question(flu, [e(sneezing, 1), e(hay_fever, 1)], 'P(flu | sneezing, hay fever)').
question(flu, [e(sneezing, 1), e(coughing, 0)], 'P(flu | sneezing, no coughing)').

main :-
    pelm_new(vorn_cp_theory, Theory),
    forall(sneezing_event(Event), vorn_cp_theory_add_event(Theory, Event)),
    forall(question(Query, Evidence, Text),
           ( with_output_to(string(_),
                            vorn_cp_theory_query_silent(Theory, Query, Evidence, P)),
             format("~w = ~4f~n", [Text, P])
           )),
    format("~nThe theory as saved:~n"),
    tmp_file_stream(text, File, Stream),
    close(Stream),
    vorn_cp_theory_save(Theory, File),
    read_file_to_string(File, Saved, []),
    delete_file(File),
    split_string(Saved, "\n", "", [_Comment|Lines]),
    atomic_list_concat(Lines, '\n', Rules),
    format("~w", [Rules]).
