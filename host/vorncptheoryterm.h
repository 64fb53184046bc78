// Keys of ground Prolog terms: the theory's atoms, its tabling table and the
// groundings of first-order events are found by them.
#ifndef CPLOGIC_VORNCPTHEORYTERM_H
#define CPLOGIC_VORNCPTHEORYTERM_H

#include <string>
#include <vector>

#include "stdpelm.h"

// Deeper terms are refused; list cells count as one level (stdpelm.h).
constexpr int kMaxTermDepth = 10000;

// The key of a ground term: equal keys exactly for identical terms (==), so
// that 'p(1)' and p(1), 1 and 1.0, "a" and a are told apart. Keys are
// prefix-free: the keys of several terms written one after the other are the
// key of the sequence. Throws the Prolog error that names a refused term
// (unbound, cyclic, too deep, a blob or a dict). The atoms in the key are
// appended to *atoms when it is not null; a key kept beyond the call needs
// them held (PelmAtomHolder).
std::string termKey(long term, std::vector<PelmAtomId>* atoms = nullptr);

// The name under which a term's atom is registered in the theory: the term as
// quoted Prolog text, so that saved theories read back and distinct terms get
// distinct names.
std::string termName(long term);

#endif
