% A burglar alarm that earthquakes also set off; neighbours call when they
% hear it, and sometimes when they do not.
%   P(alarm) = 1 - (1 - 0.1*0.9) * (1 - 0.2*0.3) = 0.1446
%   P(calls(john)) = 0.8*0.1446 + 0.1*0.8554 = 0.20122
% Run: swipl -g main -t halt examples/lpad/alarm.pl
:- use_module('../../prolog/cplogic').

neighbour(john).
neighbour(mary).

:- begin_lpad.
burglary:0.1.
earthquake:0.2.
alarm:0.9 :- burglary.
alarm:0.3 :- earthquake.
calls(X):0.8 :- alarm, neighbour(X).
calls(X):0.1 :- \+ alarm, neighbour(X).
:- end_lpad.

main :-
    prob(alarm, P1),
    format("P(alarm) = ~6g~n", [P1]),
    prob(calls(john), P2),
    format("P(calls(john)) = ~6g~n", [P2]),
    prob(burglary, [calls(john), calls(mary)], P3),
    format("P(burglary | calls(john), calls(mary)) = ~6g~n", [P3]),
    prob(burglary, [calls(john), \+ calls(mary)], P4),
    format("P(burglary | calls(john), \\+ calls(mary)) = ~6g~n", [P4]).

