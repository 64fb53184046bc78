// Bounds and hooks that a host installs around one query: a largest table,
// a poll for interruption, and progress reports. The core calls
// checkTableSize before it allocates a table and queryProgress as it works;
// either may throw, and every caller unwinds without leaking.
#ifndef CPLOGIC_QUERYLIMITS_H
#define CPLOGIC_QUERYLIMITS_H

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>

struct QueryLimits {
  // Largest number of entries one table may have; 0 means no bound.
  std::size_t max_table_entries = 0;
  // Called now and then while a query runs; true stops the query with
  // QueryInterrupted. The host polls its signals here.
  std::function<bool()> interrupted;
  // Called with a phase name ("converting", "ordering", "eliminating"), the
  // work done and the work in total, each time a unit of that phase ends.
  std::function<void(const char* phase, std::size_t done, std::size_t total)> progress;
};

// A table that a query needs is larger than max_table_entries.
class TableTooLarge : public std::runtime_error {
 public:
  TableTooLarge(std::size_t entries, std::size_t limit);
  std::size_t entries_;  // entries the table would have had (saturated)
  std::size_t limit_;
};

// The interrupted hook asked the query to stop.
class QueryInterrupted : public std::runtime_error {
 public:
  QueryInterrupted();
};

// Every value of a query's answer fell below the smallest normal double
// (about 2.2e-308) on the way, so that their ratio means nothing.
class ProbabilityUnderflow : public std::runtime_error {
 public:
  ProbabilityUnderflow();
};

// Installs limits for the queries of this thread while it lives; nests.
class ScopedQueryLimits {
 public:
  explicit ScopedQueryLimits(const QueryLimits& limits);
  ~ScopedQueryLimits();
  ScopedQueryLimits(const ScopedQueryLimits&) = delete;
  ScopedQueryLimits& operator=(const ScopedQueryLimits&) = delete;

 private:
  const QueryLimits* previous_;
};

// Throws TableTooLarge when a table of entries exceeds the installed bound;
// also counts the work and polls the interrupted hook every so often.
void checkTableSize(std::size_t entries);
// Reports progress and polls the interrupted hook.
void queryProgress(const char* phase, std::size_t done, std::size_t total);

#endif
