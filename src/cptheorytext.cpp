// The text forms of a theory: its rules, its ranking and status, a C++
// fragment that rebuilds it, a Hugin network and a Graphviz picture. They
// read the model and write nothing into it.
#include <cstdio>
#include <iostream>
#include <sstream>

#include "confactor.h"
#include "cptheory.h"
#include "cve.h"

namespace {

// name inside a double-quoted label: atom names are Prolog text and may hold
// quotes and backslashes.
std::string quotedLabel(const std::string& name) {
  std::string out;
  for (char ch : name) {
    if (ch == '"' || ch == '\\')
      out += '\\';
    out += ch;
  }
  return out;
}

}  // namespace

std::string CPTheory::str(bool nameOnly) const {
  if (nameOnly)
    return name_;
  std::ostringstream os;
  for (const CPEvent* event : events_)
    os << event->str();
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const CPTheory& theory) {
  return os << theory.str(false);
}

std::string CPTheory::strHuginNet(Atom* query) {
  bool savedTables = use_tables_;
  use_tables_ = true;
  CVE* engine = createCVE(query);
  std::ostringstream nodes;
  std::ostringstream potentials;
  auto write = [&](Atom* atom) {
    nodes << "node " << atom->name_ << "\n{\n";
    nodes << "\tstates = (";
    for (unsigned v = 0; v < atom->domainsize_; ++v)
      nodes << "\"" << v << "\" ";
    nodes << ");\n";
    nodes << "\tlabel = \"" << quotedLabel(atom->name_) << "\";\n";
    nodes << "}\n";
    std::vector<Confactor*>* tables = engine->getFactorsFor(atom);
    for (Confactor* f : *tables)
      potentials << "\n" << f->strHuginNet() << "\n";
    delete tables;
  };
  for (const auto& entry : atoms_)
    write(entry.second);
  // The chains that the query's disjunctions and conjunctions go through.
  for (const auto& atom : engine->auxiliary_atoms_)
    write(atom.get());
  use_tables_ = savedTables;
  delete engine;
  return nodes.str() + "\n" + potentials.str();
}

std::string CPTheory::strGraphviz(bool compact) {
  compile();
  std::ostringstream os;
  os << "digraph \""
     << "cptheory"
     << "\" {\n";
  os << "\tedge [style=\"setlinewidth(3)\", arrowsize=1.5];\n";
  for (const auto& entry : atoms_) {
    const Atom* atom = entry.second;
    if (atom->prime_)
      continue;
    os << "\t" << atom->id_;
    if (compact) {
      if (atom->event_ != nullptr)
        os << " [label=\"\", height=0.4, width=0.4, color=black, style=filled];\n";
      else
        os << " [label=\"\", height=0.4, width=0.4];\n";
      continue;
    }
    os << " [label=\"";
    if (atom->atomp_ != nullptr) {
      const Atom* prime = atom->atomp_;
      os << quotedLabel(prime->name_) << " (" << prime->weight_ << "," << prime->rank_ << ")\\n";
    }
    os << quotedLabel(atom->name_) << " (" << atom->weight_ << "," << atom->rank_ << ")\"";
    if (use_confactors_ && atom->isMultFactorizable())
      os << ", shape=box";
    os << "];\n";
  }
  for (const auto& entry : atoms_) {
    const Atom* atom = entry.second;
    if (atom->prime_)
      continue;
    for (const Atom* parent : atom->in_)
      os << "\t" << parent->id_ << " -> " << atom->id_ << ";\n";
  }
  if (!compact) {
    os << "\tsubgraph cluster0 {\n";
    os << "\t\tnode [fontsize = 8, height = 0.2];\n";
    os << "\t\tfontsize = 10;\n";
    os << "\t\tlabel = \"legend\";\n";
    os << "\t\tstyle = filled;\n";
    os << "\t\tcolor = grey;\n";
    os << "\t\tl1 [label=\"Mult Fact Variable\", shape=box];\n";
    os << "\t\tl2 [label=\"Variable\"];\n";
    os << "\t}\n";
  }
  os << "}\n";
  return os.str();
}
