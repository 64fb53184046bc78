#include "eliminationorder.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <functional>
#include <queue>
#include <unordered_map>

#include "confactor.h"

namespace {

// Above this many live neighbours an atom's fill is bounded, not counted.
constexpr uint32_t kExactFillDegree = 64;

// log2 of a domain size in fixed point. Integer sums stay exact under the
// incremental updates below, so equal tables tie exactly and the order never
// depends on rounding history. 2^24 per bit keeps even 2^34 neighbours of
// 32-bit domains inside 63 bits.
uint64_t logWeight(uint32_t domainsize) {
  if (domainsize <= 1)
    return 0;
  return static_cast<uint64_t>(std::llround(std::log2(double(domainsize)) * double(1 << 24)));
}

struct Key {
  uint64_t fill;
  uint64_t table;
  bool operator==(const Key& o) const { return fill == o.fill && table == o.table; }
};

struct Entry {
  Key key;
  int32_t v;
  // Reversed so that std::priority_queue pops the smallest key first.
  bool operator<(const Entry& o) const {
    if (key.fill != o.key.fill)
      return key.fill > o.key.fill;
    if (key.table != o.key.table)
      return key.table > o.key.table;
    return v > o.v;
  }
};

// Dense indices for the atoms: the atoms to eliminate first, in order of
// first appearance (so an index is the tie-break position), then the others.
// Atom ids are unique in practice, which gives a flat table; a clash (two
// atoms with one id) falls back to a hash map.
class AtomIndex {
 public:
  AtomIndex(const std::vector<std::vector<Atom*>>& scopes, const std::vector<Atom*>& eliminate) {
    int64_t lo = INT64_MAX, hi = INT64_MIN;
    size_t total = eliminate.size();
    for (const Atom* a : eliminate) {
      lo = std::min<int64_t>(lo, a->id_);
      hi = std::max<int64_t>(hi, a->id_);
    }
    for (const auto& s : scopes) {
      total += s.size();
      for (const Atom* a : s) {
        lo = std::min<int64_t>(lo, a->id_);
        hi = std::max<int64_t>(hi, a->id_);
      }
    }
    flat_ = total > 0 && hi - lo < 4 * int64_t(total) + 1024;
    if (flat_) {
      lo_ = lo;
      slot_.assign(size_t(hi - lo + 1), -1);
    }
    for (Atom* a : eliminate)
      add(a);
    eliminable_ = int32_t(atoms_.size());
    for (const auto& s : scopes)
      for (Atom* a : s)
        add(a);
  }

  int32_t add(Atom* a) {
    assert(a != nullptr);
    if (flat_) {
      int32_t& s = slot_[size_t(a->id_ - lo_)];
      if (s < 0) {
        s = int32_t(atoms_.size());
        atoms_.push_back(a);
        return s;
      }
      if (atoms_[s] == a)
        return s;
      switchToMap();
    }
    auto it = map_.emplace(a, int32_t(atoms_.size()));
    if (it.second)
      atoms_.push_back(a);
    return it.first->second;
  }

  // Only for atoms already added.
  int32_t operator[](Atom* a) const {
    if (flat_)
      return slot_[size_t(a->id_ - lo_)];
    return map_.find(a)->second;
  }

  const std::vector<Atom*>& atoms() const { return atoms_; }
  int32_t eliminable() const { return eliminable_; }

 private:
  void switchToMap() {
    flat_ = false;
    slot_ = std::vector<int32_t>();
    map_.reserve(atoms_.size() * 2);
    for (size_t i = 0; i < atoms_.size(); ++i)
      map_.emplace(atoms_[i], int32_t(i));
  }

  bool flat_ = false;
  int64_t lo_ = 0;
  std::vector<int32_t> slot_;
  std::unordered_map<const Atom*, int32_t> map_;
  std::vector<Atom*> atoms_;
  int32_t eliminable_ = 0;
};

// The interaction graph under elimination. Each vertex keeps a sorted list of
// neighbour indices in one shared pool. Eliminated vertices stay in their
// neighbours' lists until a list is next rewritten, so removing a hub's
// neighbours one by one does not cost degree each time; deg_ counts only the
// live neighbours. Adjacency tests binary-search the shorter list.
class Graph {
 public:
  Graph(const AtomIndex& index, const std::vector<std::vector<Atom*>>& scopes) {
    const size_t n = index.atoms().size();
    off_.assign(n + 1, 0);
    len_.assign(n, 0);
    cap_.assign(n, 0);
    deg_.assign(n, 0);
    logsum_.assign(n, 0);
    dead_.assign(n, 0);
    mark_.assign(n, 0);
    weight_.resize(n);
    for (size_t i = 0; i < n; ++i)
      weight_[i] = logWeight(index.atoms()[i]->domainsize_);

    // Scopes as sorted, duplicate-free index lists, then every ordered pair
    // of each scope bucketed by its first vertex.
    std::vector<int32_t> flat;
    std::vector<size_t> bounds{0};
    for (const auto& s : scopes) {
      const size_t b = flat.size();
      for (Atom* a : s)
        flat.push_back(index[a]);
      std::sort(flat.begin() + b, flat.end());
      flat.erase(std::unique(flat.begin() + b, flat.end()), flat.end());
      const size_t k = flat.size() - b;
      for (size_t i = b; i < flat.size(); ++i)
        cap_[flat[i]] += uint32_t(k - 1);
      bounds.push_back(flat.size());
    }
    for (size_t i = 0; i < n; ++i)
      off_[i + 1] = off_[i] + cap_[i];
    pool_.resize(off_[n]);
    for (size_t s = 0; s + 1 < bounds.size(); ++s)
      for (size_t i = bounds[s]; i < bounds[s + 1]; ++i)
        for (size_t j = bounds[s]; j < bounds[s + 1]; ++j)
          if (i != j)
            pool_[off_[flat[i]] + len_[flat[i]]++] = flat[j];
    off_.pop_back();
    for (size_t v = 0; v < n; ++v) {
      int32_t* b = &pool_[off_[v]];
      std::sort(b, b + len_[v]);
      len_[v] = uint32_t(std::unique(b, b + len_[v]) - b);
      deg_[v] = len_[v];
      for (uint32_t i = 0; i < len_[v]; ++i)
        logsum_[v] += weight_[b[i]];
    }
  }

  uint32_t degree(int32_t v) const { return deg_[v]; }

  // The live neighbours of v, sorted; drops the eliminated ones for good.
  const int32_t* live(int32_t v) {
    int32_t* b = &pool_[off_[v]];
    if (len_[v] != deg_[v]) {
      len_[v] = uint32_t(std::remove_if(b, b + len_[v], [&](int32_t u) { return dead_[u]; }) - b);
      assert(len_[v] == deg_[v]);
    }
    return b;
  }

  bool adjacent(int32_t u, int32_t w) const {
    if (len_[u] > len_[w])
      std::swap(u, w);
    const int32_t* b = &pool_[off_[u]];
    return std::binary_search(b, b + len_[u], w);
  }

  Key score(int32_t v) {
    const uint64_t d = deg_[v];
    Key key{0, weight_[v] + logsum_[v]};
    if (d > kExactFillDegree) {
      key.fill = d * (d - 1) / 2;
      return key;
    }
    const int32_t* nb = live(v);
    for (uint32_t i = 0; i < d; ++i)
      for (uint32_t j = i + 1; j < d; ++j)
        key.fill += !adjacent(nb[i], nb[j]);
    return key;
  }

  // Removes v and joins its neighbours pairwise; returns them in *touched.
  void eliminate(int32_t v, std::vector<int32_t>* touched) {
    const uint32_t d = deg_[v];
    const int32_t* nb = live(v);
    touched->assign(nb, nb + d);
    // All missing pairs are found before any list changes, since the
    // adjacency test reads either endpoint's list.
    missing_.clear();
    missingEnd_.clear();
    for (uint32_t i = 0; i < d; ++i) {
      const int32_t u = (*touched)[i];
      for (uint32_t j = 0; j < d; ++j)
        if (j != i && !adjacent(u, (*touched)[j]))
          missing_.push_back((*touched)[j]);
      missingEnd_.push_back(missing_.size());
    }
    dead_[v] = 1;
    deg_[v] = 0;
    size_t m = 0;
    for (uint32_t i = 0; i < d; ++i) {
      const int32_t u = (*touched)[i];
      --deg_[u];
      logsum_[u] -= weight_[v];
      if (m == missingEnd_[i])
        continue;
      merge(u, &missing_[m], &missing_[0] + missingEnd_[i]);
      for (; m < missingEnd_[i]; ++m) {
        ++deg_[u];
        logsum_[u] += weight_[missing_[m]];
      }
    }
    // A new edge also lowers the fill of the common neighbours of its ends,
    // which need not be neighbours of v: they are rescored too.
    if (missing_.empty())
      return;
    ++stamp_;
    for (int32_t u : *touched)
      mark_[u] = stamp_;
    m = 0;
    for (uint32_t i = 0; i < d; ++i) {
      const int32_t u = (*touched)[i];
      for (; m < missingEnd_[i]; ++m) {
        int32_t a = u, b = missing_[m];
        if (a > b)
          continue;  // each new edge once
        if (len_[a] > len_[b])
          std::swap(a, b);
        const int32_t* pa = &pool_[off_[a]];
        const int32_t* pb = &pool_[off_[b]];
        for (uint32_t k = 0; k < len_[a]; ++k) {
          const int32_t x = pa[k];
          if (mark_[x] != stamp_ && std::binary_search(pb, pb + len_[b], x)) {
            mark_[x] = stamp_;
            touched->push_back(x);
          }
        }
      }
    }
  }

 private:
  // Rewrites u's list as its live neighbours merged with [first, last),
  // moving it to the end of the pool when it outgrows its room.
  void merge(int32_t u, const int32_t* first, const int32_t* last) {
    const int32_t* b = &pool_[off_[u]];
    buffer_.clear();
    for (uint32_t i = 0; i < len_[u]; ++i)
      if (!dead_[b[i]])
        buffer_.push_back(b[i]);
    const size_t keep = buffer_.size();
    buffer_.insert(buffer_.end(), first, last);
    std::inplace_merge(buffer_.begin(), buffer_.begin() + keep, buffer_.end());
    if (buffer_.size() > cap_[u]) {
      cap_[u] = uint32_t(std::max<size_t>(buffer_.size(), 2 * size_t(cap_[u])));
      off_[u] = pool_.size();
      pool_.resize(pool_.size() + cap_[u]);
    }
    std::copy(buffer_.begin(), buffer_.end(), pool_.begin() + off_[u]);
    len_[u] = uint32_t(buffer_.size());
  }

  std::vector<int32_t> pool_;
  std::vector<size_t> off_;
  std::vector<uint32_t> len_, cap_, deg_;
  std::vector<uint64_t> weight_, logsum_;
  std::vector<char> dead_;
  std::vector<uint32_t> mark_;
  uint32_t stamp_ = 0;
  std::vector<int32_t> missing_, buffer_;
  std::vector<size_t> missingEnd_;
};

}  // namespace

std::vector<Atom*> greedyEliminationOrder(const std::vector<std::vector<Atom*>>& scopes,
                                          const std::vector<Atom*>& eliminate) {
  const AtomIndex index(scopes, eliminate);
  const int32_t ne = index.eliminable();
  Graph graph(index, scopes);

  // Lazy queue: a popped entry counts only while it carries the vertex's
  // current key; rescoring pushes a new entry only when the key changed.
  std::vector<Key> current(ne);
  std::vector<Entry> heap(ne);
  for (int32_t v = 0; v < ne; ++v) {
    current[v] = graph.score(v);
    heap[v] = Entry{current[v], v};
  }
  std::priority_queue<Entry> queue(std::less<Entry>(), std::move(heap));

  std::vector<char> done(ne, 0);
  std::vector<Atom*> order;
  order.reserve(ne);
  std::vector<int32_t> touched;
  while (!queue.empty()) {
    const Entry e = queue.top();
    queue.pop();
    if (done[e.v] || !(e.key == current[e.v]))
      continue;
    done[e.v] = 1;
    order.push_back(index.atoms()[e.v]);
    graph.eliminate(e.v, &touched);
    for (int32_t u : touched) {
      if (u >= ne)
        continue;
      const Key k = graph.score(u);
      if (!(k == current[u])) {
        current[u] = k;
        queue.push(Entry{k, u});
      }
    }
  }
  assert(order.size() == size_t(ne));
  return order;
}

std::vector<std::vector<Atom*>> confactorScopes(const std::vector<Confactor*>& confactors) {
  std::vector<std::vector<Atom*>> scopes;
  scopes.reserve(confactors.size());
  for (const Confactor* c : confactors) {
    scopes.emplace_back();
    for (const AtomDomStruct* ads : c->atoms_)
      scopes.back().push_back(ads->atom_);
  }
  return scopes;
}
