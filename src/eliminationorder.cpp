#include "eliminationorder.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include "confactor.h"
#include "querylimits.h"

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
      pos_[heap_[i].v] = uint32_t(i);
    for (size_t i = heap_.size() / 4 + 1; i-- > 0 && !heap_.empty();)
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
    pos_[e.v] = uint32_t(i);
  }

  std::vector<Entry> heap_;
  std::vector<uint32_t> pos_;
};

// Dense indices for the atoms: the atoms to eliminate first, in order of
// first appearance (so an index is the tie-break position), then the others;
// and the scopes' atoms as indices, concatenated. Atom ids are unique in
// practice, which gives a flat table and one read of each atom; a clash (two
// atoms with one id) falls back to a hash map.
class AtomIndex {
 public:
  AtomIndex(const std::vector<std::vector<Atom*>>& scopes, const std::vector<Atom*>& eliminate) {
    size_t total = eliminate.size();
    for (const auto& s : scopes)
      total += s.size();
    ids_.reserve(total);
    int64_t lo = INT64_MAX, hi = INT64_MIN;
    auto read = [&](const Atom* a) {
      assert(a != nullptr);
      ids_.push_back(a->id_);
      lo = std::min<int64_t>(lo, a->id_);
      hi = std::max<int64_t>(hi, a->id_);
    };
    for (const Atom* a : eliminate)
      read(a);
    for (const auto& s : scopes)
      for (const Atom* a : s)
        read(a);
    if (total > 0 && hi - lo < 4 * int64_t(total) + 1024) {
      std::vector<int32_t> slot(size_t(hi - lo + 1), -1);
      if (assign(scopes, eliminate, [&](Atom* a, int32_t id) -> int32_t& {
            (void)a;
            return slot[size_t(id - lo)];
          }))
        return;
    }
    std::unordered_map<const Atom*, int32_t> map;
    map.reserve(total);
    assign(scopes, eliminate,
           [&](Atom* a, int32_t) -> int32_t& { return map.emplace(a, -1).first->second; });
  }

  const std::vector<Atom*>& atoms() const { return atoms_; }
  int32_t eliminable() const { return eliminable_; }
  // The scopes' atoms as indices, scope after scope.
  const int32_t* scopeIndices() const { return ids_.data() + scopesStart_; }

 private:
  // Replaces each id in ids_ by its atom's index; false when two atoms share
  // a slot of `slotOf` (-1 marks a free slot).
  template <class SlotOf>
  bool assign(const std::vector<std::vector<Atom*>>& scopes, const std::vector<Atom*>& eliminate,
              SlotOf slotOf) {
    atoms_.clear();
    size_t k = 0;
    auto visit = [&](Atom* a) {
      int32_t& slot = slotOf(a, ids_[k]);
      if (slot < 0) {
        slot = int32_t(atoms_.size());
        atoms_.push_back(a);
      } else if (atoms_[slot] != a) {
        return false;
      }
      ids_[k++] = slot;
      return true;
    };
    // A failed attempt leaves ids_ half rewritten; the map ignores them.
    bool ok = true;
    for (size_t i = 0; ok && i < eliminate.size(); ++i)
      ok = visit(eliminate[i]);
    eliminable_ = int32_t(atoms_.size());
    scopesStart_ = eliminate.size();
    for (size_t i = 0; ok && i < scopes.size(); ++i)
      for (size_t j = 0; ok && j < scopes[i].size(); ++j)
        ok = visit(scopes[i][j]);
    return ok;
  }

  std::vector<int32_t> ids_;
  size_t scopesStart_ = 0;
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
    uint32_t small[64] = {};  // domains below 64, computed once
    for (uint32_t d = 2; d < 64; ++d)
      small[d] = logWeight(d);
    for (size_t i = 0; i < n; ++i) {
      const uint32_t d = index.atoms()[i]->domainsize_;
      weight_[i] = d < 64 ? small[d] : logWeight(d);
    }

    // Every ordered pair of each scope, bucketed by its first vertex: one
    // pass counts, one fills.
    std::vector<int32_t> members;
    for (int pass = 0; pass < 2; ++pass) {
      const int32_t* next = index.scopeIndices();
      for (const auto& s : scopes) {
        members.assign(next, next + s.size());
        next += s.size();
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
      int32_t* b = pool_.data() + off_[v];
      std::sort(b, b + len_[v]);
      len_[v] = uint32_t(std::unique(b, b + len_[v]) - b);
      for (uint32_t i = 0; i < len_[v]; ++i)
        logsum_[v] += weight_[b[i]];
    }
    deg_ = len_;
    // Each triangle is met once from each of its edges, crediting the third
    // vertex.
    for (size_t a = 0; a < n; ++a) {
      const int32_t* b = (pool_.data() + off_[a]);
      for (uint32_t i = 0; i < len_[a]; ++i)
        if (b[i] > int32_t(a) && len_[a] > 1 && len_[b[i]] > 1)
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
      const int32_t* b = (pool_.data() + off_[N[i]]);
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
    int32_t* b = (pool_.data() + off_[v]);
    if (len_[v] != deg_[v]) {
      len_[v] = uint32_t(std::remove_if(b, b + len_[v], [&](int32_t u) { return dead_[u]; }) - b);
      assert(len_[v] == deg_[v]);
    }
    return b;
  }

  bool adjacent(int32_t u, int32_t w) const {
    if (len_[u] > len_[w])
      std::swap(u, w);
    const int32_t* b = (pool_.data() + off_[u]);
    return std::binary_search(b, b + len_[u], w);
  }

  // Calls f on each live common neighbour of a and b: walks the shorter list
  // and searches the longer, so a hub costs only a logarithm.
  template <class F>
  void forCommon(int32_t a, int32_t b, F f) const {
    if (len_[a] > len_[b])
      std::swap(a, b);
    const int32_t* pa = (pool_.data() + off_[a]);
    const int32_t* pb = (pool_.data() + off_[b]);
    for (uint32_t k = 0; k < len_[a]; ++k)
      if (!dead_[pa[k]] && std::binary_search(pb, pb + len_[b], pa[k]))
        f(pa[k]);
  }

  // Rewrites u's list as its live neighbours merged with [first, last),
  // moving it to the end of the pool when it outgrows its room.
  void merge(int32_t u, const int32_t* first, const int32_t* last) {
    const int32_t* b = (pool_.data() + off_[u]);
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
  if (eliminate.empty())
    return {};
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
    queryProgress("ordering", order.size(), size_t(ne));
  }
  assert(order.size() == size_t(ne));
  return order;
}

std::vector<std::vector<Atom*>> confactorScopes(const std::vector<Confactor*>& confactors) {
  // A scope inside another adds no edge. The confactors of one event come
  // one after another and their contexts often nest (a body tree's paths),
  // so comparing with the last scope kept drops most of them at linear cost.
  auto inside = [](const std::vector<Atom*>& a, const std::vector<Atom*>& b) {
    return a.size() <= b.size() &&
           std::includes(b.begin(), b.end(), a.begin(), a.end(), Atom::CmpId());
  };
  std::vector<std::vector<Atom*>> scopes;
  scopes.reserve(confactors.size());
  std::vector<Atom*> scope;
  for (const Confactor* c : confactors) {
    scope.clear();
    for (const AtomDomStruct* ads : c->atoms_)
      scope.push_back(ads->atom_);
    std::sort(scope.begin(), scope.end(), Atom::CmpId());
    if (!scopes.empty() && inside(scope, scopes.back()))
      continue;
    if (!scopes.empty() && inside(scopes.back(), scope))
      scopes.back() = scope;
    else
      scopes.push_back(scope);
  }
  return scopes;
}
