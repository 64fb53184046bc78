#include "eliminationorder.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include "confactor.h"

namespace {

// log2 of a domain size in fixed point. Integer sums stay exact under the
// incremental updates below, so equal tables tie exactly and the order never
// depends on rounding history. 2^24 per bit keeps even 2^34 neighbours of
// 32-bit domains inside 63 bits.
uint32_t logWeight(uint32_t domainsize) {
  if (domainsize <= 1)
    return 0;
  return static_cast<uint32_t>(std::llround(std::log2(double(domainsize)) * double(1 << 24)));
}

struct Key {
  uint64_t fill;
  uint64_t table;
};

struct Entry {
  Key key;
  int32_t v;
  bool before(const Entry& o) const {
    if (key.fill != o.key.fill)
      return key.fill < o.key.fill;
    if (key.table != o.key.table)
      return key.table < o.key.table;
    return v < o.v;
  }
};

// A 4-ary min-heap that knows where each vertex sits, so a rescored vertex
// moves in place: no stale entries, and the heap never outgrows the vertices.
class Queue {
 public:
  explicit Queue(std::vector<Entry> entries) : heap_(std::move(entries)), pos_(heap_.size()) {
    for (size_t i = 0; i < heap_.size(); ++i)
      pos_[heap_[i].v] = i;
    for (size_t i = heap_.size() / 4 + 1; i-- > 0;)
      down(i);
  }
  bool empty() const { return heap_.empty(); }

  int32_t pop() {
    const int32_t v = heap_[0].v;
    heap_[0] = heap_.back();
    pos_[heap_[0].v] = 0;
    heap_.pop_back();
    if (!heap_.empty())
      down(0);
    return v;
  }

  // REQUIRES: v is still queued.
  void update(int32_t v, Key key) {
    const size_t i = pos_[v];
    const Entry old = heap_[i];
    heap_[i].key = key;
    if (heap_[i].before(old))
      up(i);
    else
      down(i);
  }

 private:
  void up(size_t i) {
    const Entry e = heap_[i];
    while (i > 0) {
      const size_t p = (i - 1) / 4;
      if (!e.before(heap_[p]))
        break;
      place(i, heap_[p]);
      i = p;
    }
    place(i, e);
  }

  void down(size_t i) {
    const Entry e = heap_[i];
    const size_t n = heap_.size();
    for (;;) {
      const size_t first = 4 * i + 1;
      if (first >= n)
        break;
      size_t best = first;
      for (size_t c = first + 1; c < std::min(first + 4, n); ++c)
        if (heap_[c].before(heap_[best]))
          best = c;
      if (!heap_[best].before(e))
        break;
      place(i, heap_[best]);
      i = best;
    }
    place(i, e);
  }

  void place(size_t i, const Entry& e) {
    heap_[i] = e;
    pos_[e.v] = i;
  }

  std::vector<Entry> heap_;
  std::vector<size_t> pos_;
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
//
// tri_[x] counts the edges among x's live neighbours, so the fill of x is
// deg(deg - 1) / 2 - tri_[x] at any time, without looking at the neighbours.
// Eliminating v updates it for v's neighbours and for the common neighbours of
// each new edge, the only vertices whose fill changes.
class Graph {
 public:
  Graph(const AtomIndex& index, const std::vector<std::vector<Atom*>>& scopes) {
    const size_t n = index.atoms().size();
    off_.assign(n + 1, 0);
    len_.assign(n, 0);
    cap_.assign(n, 0);
    logsum_.assign(n, 0);
    tri_.assign(n, 0);
    dead_.assign(n, 0);
    weight_.resize(n);
    for (size_t i = 0; i < n; ++i)
      weight_[i] = logWeight(index.atoms()[i]->domainsize_);

    // Every ordered pair of each scope, bucketed by its first vertex: one
    // pass counts, one fills.
    std::vector<int32_t> members;
    for (int pass = 0; pass < 2; ++pass) {
      for (const auto& s : scopes) {
        members.clear();
        for (Atom* a : s)
          members.push_back(index[a]);
        std::sort(members.begin(), members.end());
        members.erase(std::unique(members.begin(), members.end()), members.end());
        for (int32_t u : members) {
          if (pass == 0) {
            cap_[u] += uint32_t(members.size() - 1);
            continue;
          }
          for (int32_t w : members)
            if (w != u)
              pool_[off_[u] + len_[u]++] = w;
        }
      }
      if (pass == 0) {
        for (size_t i = 0; i < n; ++i)
          off_[i + 1] = off_[i] + cap_[i];
        pool_.resize(off_[n]);
      }
    }
    off_.pop_back();
    for (size_t v = 0; v < n; ++v) {
      int32_t* b = &pool_[off_[v]];
      std::sort(b, b + len_[v]);
      len_[v] = uint32_t(std::unique(b, b + len_[v]) - b);
      for (uint32_t i = 0; i < len_[v]; ++i)
        logsum_[v] += weight_[b[i]];
    }
    deg_ = len_;
    // Each triangle is met once from each of its edges, crediting the third
    // vertex.
    for (size_t a = 0; a < n; ++a) {
      const int32_t* b = &pool_[off_[a]];
      for (uint32_t i = 0; i < len_[a]; ++i)
        if (b[i] > int32_t(a))
          forCommon(int32_t(a), b[i], [&](int32_t x) { ++tri_[x]; });
    }
  }

  Key score(int32_t v) const {
    const uint64_t d = deg_[v];
    return Key{d * (d - 1) / 2 - tri_[v], weight_[v] + logsum_[v]};
  }

  // Removes v and joins its neighbours pairwise; returns in *touched every
  // vertex whose fill or table changed.
  void eliminate(int32_t v, std::vector<int32_t>* touched) {
    const int32_t* nb = live(v);
    const uint32_t d = deg_[v];
    touched->assign(nb, nb + d);
    const std::vector<int32_t>& N = *touched;
    if (local_.empty())
      local_.assign(len_.size(), -1);
    for (uint32_t i = 0; i < d; ++i)
      local_[N[i]] = int32_t(i);

    // rows_: the edges among N as bit rows of `words` words.
    const size_t words = (d + 63) / 64;
    rows_.assign(size_t(d) * words, 0);
    auto bit = [&](uint32_t i, uint32_t j) { return (rows_[i * words + j / 64] >> (j % 64)) & 1; };
    for (uint32_t i = 0; i < d; ++i) {
      const int32_t* b = &pool_[off_[N[i]]];
      if (len_[N[i]] <= 4 * d) {
        for (uint32_t k = 0; k < len_[N[i]]; ++k)
          if (!dead_[b[k]] && local_[b[k]] >= 0 && b[k] != v) {
            const uint32_t j = uint32_t(local_[b[k]]);
            rows_[i * words + j / 64] |= uint64_t(1) << (j % 64);
          }
      } else {
        for (uint32_t j = 0; j < d; ++j)
          if (j != i && adjacent(N[i], N[j]))
            rows_[i * words + j / 64] |= uint64_t(1) << (j % 64);
      }
    }

    // Per neighbour u: the missing pairs, and the vertices outside N and v
    // adjacent to both ends of a missing pair (their fill drops by one each).
    missing_.clear();
    missingEnd_.clear();
    extra_.assign(d, 0);
    dead_[v] = 1;  // v is counted apart below
    for (uint32_t i = 0; i < d; ++i) {
      for (uint32_t j = 0; j < d; ++j) {
        if (j == i || bit(i, j))
          continue;
        missing_.push_back(N[j]);
        if (j < i)
          continue;
        uint64_t c = 0;
        forCommon(N[i], N[j], [&](int32_t x) {
          if (local_[x] >= 0)
            return;
          ++c;
          ++tri_[x];
          if (local_[x] == -1) {
            local_[x] = -2;
            touched->push_back(x);
          }
        });
        extra_[i] += c;
        extra_[j] += c;
      }
      missingEnd_.push_back(missing_.size());
    }

    size_t m = 0;
    for (uint32_t i = 0; i < d; ++i) {
      const int32_t u = N[i];
      if (!missing_.empty()) {
        // Edges the fill adds among u's neighbours: its f new neighbours
        // join the other neighbours in N and v, and each other; the pairs
        // of old neighbours in N that were missing; and those of extra_.
        uint64_t inS = 0, edgesInS = 0;
        for (size_t w = 0; w < words; ++w)
          inS += popcount(rows_[i * words + w]);
        for (uint32_t j = 0; j < d; ++j)
          if (bit(i, j))
            for (size_t w = 0; w < words; ++w)
              edgesInS += popcount(rows_[j * words + w] & rows_[i * words + w]);
        edgesInS /= 2;
        const uint64_t f = d - 1 - inS;
        tri_[u] += f * (d - f) + f * (f - 1) / 2 + (inS * (inS - 1) / 2 - edgesInS) + extra_[i];
        deg_[u] += uint32_t(f);
      }
      // v leaves; after the fill it was adjacent to all of u's other
      // neighbours in N.
      tri_[u] -= d - 1;
      --deg_[u];
      logsum_[u] -= weight_[v];
      if (m < missingEnd_[i])
        merge(u, &missing_[m], &missing_[0] + missingEnd_[i]);
      for (; m < missingEnd_[i]; ++m)
        logsum_[u] += weight_[missing_[m]];
    }
    deg_[v] = 0;
    for (int32_t x : N)
      local_[x] = -1;
  }

 private:
  static uint64_t popcount(uint64_t x) { return uint64_t(__builtin_popcountll(x)); }

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

  // Calls f on each live common neighbour of a and b: walks the shorter list
  // and searches the longer, so a hub costs only a logarithm.
  template <class F>
  void forCommon(int32_t a, int32_t b, F f) const {
    if (len_[a] > len_[b])
      std::swap(a, b);
    const int32_t* pa = &pool_[off_[a]];
    const int32_t* pb = &pool_[off_[b]];
    for (uint32_t k = 0; k < len_[a]; ++k)
      if (!dead_[pa[k]] && std::binary_search(pb, pb + len_[b], pa[k]))
        f(pa[k]);
  }

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
  std::vector<uint32_t> len_, cap_, deg_, weight_;
  std::vector<uint64_t> logsum_, tri_;
  std::vector<char> dead_;
  // Scratch of eliminate().
  std::vector<int32_t> local_, missing_, buffer_;
  std::vector<size_t> missingEnd_;
  std::vector<uint64_t> rows_, extra_;
};

}  // namespace

std::vector<Atom*> greedyEliminationOrder(const std::vector<std::vector<Atom*>>& scopes,
                                          const std::vector<Atom*>& eliminate) {
  const AtomIndex index(scopes, eliminate);
  const int32_t ne = index.eliminable();
  Graph graph(index, scopes);

  std::vector<Entry> entries(ne);
  for (int32_t v = 0; v < ne; ++v)
    entries[v] = Entry{graph.score(v), v};
  Queue queue(std::move(entries));

  std::vector<Atom*> order;
  order.reserve(ne);
  std::vector<int32_t> touched;
  while (!queue.empty()) {
    const int32_t v = queue.pop();
    order.push_back(index.atoms()[v]);
    graph.eliminate(v, &touched);
    for (int32_t u : touched)
      if (u < ne)
        queue.update(u, graph.score(u));
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
