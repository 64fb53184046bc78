#include "vorncptheoryterm.h"

#include "stdpelm.h"

std::string termKey(long term) {
  std::string key;
  pelm_term_key(term, kMaxTermDepth, &key);
  return key;
}

std::string termName(long term) {
  return pelm_term_text(term);
}
