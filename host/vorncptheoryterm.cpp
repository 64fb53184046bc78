#include "vorncptheoryterm.h"

#include "stdpelm.h"

std::string termKey(long term, std::vector<PelmAtomId>* atoms) {
  std::string key;
  pelm_term_key(term, kMaxTermDepth, &key, atoms);
  return key;
}

std::string termName(long term) {
  return pelm_term_text(term);
}
