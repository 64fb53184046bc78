name(cplogic).
version('0.1.0').
title('Exact inference for CP-logic and LPAD programs by contextual variable elimination').
keywords([probabilistic, 'CP-logic', lpad, inference]).
author('The cplogic developers', 'cplogic@localhost').
pack_version(2).
