#include "querylimits.h"

namespace {

thread_local const QueryLimits* g_limits = nullptr;
// Table entries allocated since the last poll: polling costs a call into the
// host, so it happens once per this much work.
thread_local std::size_t g_work_since_poll = 0;
constexpr std::size_t kPollEveryEntries = 1 << 16;

void poll() {
  g_work_since_poll = 0;
  if (g_limits->interrupted && g_limits->interrupted())
    throw QueryInterrupted();
}

}  // namespace

TableTooLarge::TableTooLarge(std::size_t entries, std::size_t limit)
    : std::runtime_error("a table of " + std::to_string(entries) +
                         " entries exceeds the limit of " + std::to_string(limit)),
      entries_(entries),
      limit_(limit) {}

QueryInterrupted::QueryInterrupted() : std::runtime_error("query interrupted") {}

ProbabilityUnderflow::ProbabilityUnderflow()
    : std::runtime_error(
          "every probability of the answer is below the smallest normal double (about 2.2e-308)") {}

ScopedQueryLimits::ScopedQueryLimits(const QueryLimits& limits) : previous_(g_limits) {
  g_limits = &limits;
}

ScopedQueryLimits::~ScopedQueryLimits() {
  g_limits = previous_;
}

void checkTableSize(std::size_t entries) {
  if (g_limits == nullptr)
    return;
  if (g_limits->max_table_entries != 0 && entries > g_limits->max_table_entries)
    throw TableTooLarge(entries, g_limits->max_table_entries);
  g_work_since_poll += entries + 16;
  if (g_work_since_poll >= kPollEveryEntries)
    poll();
}

void queryProgress(const char* phase, std::size_t done, std::size_t total) {
  if (g_limits == nullptr)
    return;
  if (g_limits->progress)
    g_limits->progress(phase, done, total);
  poll();
}
