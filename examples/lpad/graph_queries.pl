% The graph of graph.pl in the P::Head notation, with the questions in the
% program: run it with  bin/cplogic examples/lpad/graph_queries.pl
% Given that the edge c -> e is absent:
%   path(a,a): 0.336   path(a,b): 0.6   path(a,c): 0.42   path(a,d): 0.3
%   path(a,e): 0.6 * 0.5 * 0.9 = 0.27
0.6::edge(a, b).  0.7::edge(b, c).  0.8::edge(c, a).  0.5::edge(b, d).
0.9::edge(d, e).  0.4::edge(e, b).  0.3::edge(c, e).

path(X, Y) :- edge(X, Y).
path(X, Y) :- edge(X, Z), path(Z, Y).

query(path(a, _)).
evidence(edge(c, e), false).
