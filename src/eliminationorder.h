// Elimination orders chosen per query: a greedy min-fill order over the
// interaction graph of the confactors a query needs.
#ifndef CPLOGIC_ELIMINATIONORDER_H
#define CPLOGIC_ELIMINATIONORDER_H

#include <vector>

#include "atom.h"

// A greedy elimination order of `eliminate` over the interaction graph of
// `scopes` (two atoms interact when some scope holds both; a scope is the
// set of atoms of one confactor, context and table atoms alike). Each step
// takes the atom whose elimination adds the fewest new edges (min-fill),
// ties broken by the smaller resulting table (product of the domain sizes of
// the atom and its neighbours, compared in log space, never overflowing),
// then by position in `eliminate`. Atoms of scopes that are not in
// `eliminate` stay in the graph as neighbours and are never eliminated.
//
// Returns every atom of `eliminate` exactly once (a repeated atom keeps its
// first position); the same input always gives the same order.
//
// Cost: fills are exact and kept up to date in constant time per rescored
// atom (from counts of the edges among each atom's neighbours), so hubs are
// never scanned pairwise; eliminating an atom with d live neighbours costs
// about d^2 plus the work to find the common neighbours of the edges it adds.
// Scopes become cliques of the graph, so one scope of k atoms costs k^2 memory.
std::vector<Atom*> greedyEliminationOrder(const std::vector<std::vector<Atom*>>& scopes,
                                          const std::vector<Atom*>& eliminate);

// The scopes of confactors (all their atoms), leaving out a scope that lies
// inside the one kept before it.
class Confactor;
std::vector<std::vector<Atom*>> confactorScopes(const std::vector<Confactor*>& confactors);

#endif
