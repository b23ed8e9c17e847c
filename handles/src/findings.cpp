#include "findings.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <unordered_map>

#include "dispatcher.h"
#include "type_names.h"

namespace zorvix::detail {
namespace {

struct Pairing {
  std::string kind;
  std::string counterpart;
  Problem missing;
  std::string missing_text;
  bool is_needed;          // a missing counterpart is wrong even if there is none of a similar name
  std::string gives_type;  // what a counterpart does with its type
  std::string thread;      // on which a direct callable is invoked
};

const Pairing* FindPairing(const Row& row) {
  static const auto& pairings = *new std::vector<Pairing>{
      {"Publisher", "Subscriber", Problem::NoSubscriber, "no subscriber", true, "takes", ""},
      {"Subscriber", "Publisher", Problem::NoPublisher, "no publisher", true, "publishes",
       "the publisher's thread"},
      {"Client", "Server", Problem::NoServer, "no server", true, "serves", ""},
      {"Server", "Client", Problem::NoClient, "no client", false, "calls with",
       "the caller's thread"},
      {"Watcher", "Holder", Problem::NoHolder, "no holder", true, "sets", "the holder's thread"},
      {"Holder", "Watcher", Problem::NoWatcher, "no watcher", false, "takes", ""},
      {"Presence", "Subscriber", Problem::NoSubscriber, "no subscriber", false, "",
       "the subscriber's thread"},
      {"Presence", "Server", Problem::NoServer, "no server", false, "", "the server's thread"},
      {"Presence", "Holder", Problem::NoHolder, "no holder", false, "", "the holder's thread"},
  };
  for (const Pairing& pairing : pairings) {
    const bool is_counted = row.counted_kind == nullptr || row.counted_kind == pairing.counterpart;
    if (pairing.kind == row.info.kind && is_counted) return &pairing;
  }
  return nullptr;
}

const char* NameOf(bridge::BridgeType type) {
  switch (type) {
    case bridge::BridgeType::Sync:
      return "Sync";
    case bridge::BridgeType::Async:
      return "Async";
    default:
      return "SignleAsync";
  }
}

std::string TypesOf(const HandleInfo& info) {
  return info.response.empty() ? info.type : info.type + " -> " + info.response;
}

std::string Seconds(std::chrono::nanoseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

class Finder {
 public:
  Finder(std::vector<Row>& rows, Clock::time_point now, std::int64_t slow_limit)
      : rows_(rows), now_(now), slow_limit_(slow_limit) {
    for (Row& row : rows) {
      if (row.name != nullptr) names_[row.name].push_back(&row);
    }
    for (Row& row : rows) CountCounterparts(row);
  }

  void FindIn(Row& row) const {
    if (const Pairing* const pairing = FindPairing(row)) FindCounterparts(row, *pairing);
    if (row.info.rejected != 0) {
      Add(row, Problem::Rejected,
          "rejected because of their type: " + std::to_string(row.info.rejected));
    }
    FindReplacement(row);
    FindPending(row);
    FindRunning(row);
    FindWaits(row);
    FindSlow(row);
    if (row.info.dropped != 0 && row.info.depth != 1) Add(row, Problem::Drops, "drops");
  }

 private:
  static void Add(Row& row, Problem problem, const std::string& text) {
    row.info.findings.push_back({problem, text});
  }

  void CountCounterparts(Row& row) const {
    const Pairing* const pairing = FindPairing(row);
    if (pairing == nullptr) return;
    for (const Row* other : names_.at(row.name)) {
      if (other->info.kind == pairing->counterpart) ++row.info.counterparts;
    }
  }

  void FindCounterparts(Row& row, const Pairing& pairing) const {
    long participants = 0;
    const Row* other_type = nullptr;
    for (const Row* other : names_.at(row.name)) {
      participants += other->own_participants;
      if (other->info.kind != pairing.counterpart || row.info.type.empty()) continue;
      if (TypesOf(other->info) != TypesOf(row.info) && other_type == nullptr) other_type = other;
    }
    if (other_type != nullptr) {
      Add(row, Problem::OtherType,
          "other message type: " + other_type->info.module + ' ' + pairing.gives_type + ' ' +
              TypesOf(other_type->info));
    }
    // Endpoints without a handle, or handles that come or go, may be counterparts.
    const bool are_all_known = row.participants <= participants;
    if (row.info.counterparts == 0 && are_all_known) AddMissing(row, pairing);
  }

  void AddMissing(Row& row, const Pairing& pairing) const {
    // A publisher that participates twice does not expect subscribers.
    const bool is_optional = row.info.kind == "Publisher" && row.own_participants == 2;
    const bool is_needed = pairing.is_needed && !is_optional;
    const bool is_lonely_presence = row.counted_kind != nullptr && names_.at(row.name).size() == 1;
    const Row* similar = nullptr;
    const Row* other_kind = nullptr;
    for (const Row& other : rows_) {
      if (other.info.kind != pairing.counterpart) continue;
      if (other.info.name == row.info.name) {
        other_kind = &other;
      } else if (AreSimilar(other.info.name, row.info.name)) {
        similar = MoreLikely(similar, other, is_needed || is_lonely_presence);
      }
    }
    std::string text = pairing.missing_text;
    if (other_kind != nullptr) {
      Add(row, Problem::OtherKind,
          "other kind: " + other_kind->info.module + " is " + NameOf(other_kind->bridge_type));
    } else if (similar != nullptr) {
      text += "; similar name: " + similar->info.name + " (" + similar->info.module + ")";
    } else if (!is_needed) {
      return;
    }
    Add(row, pairing.missing, text);
  }

  // Returns the handle of a similar name that is more likely meant, or null. One that has
  // counterparts, as "wheel/left" next to "wheel/leg", is meant only if something must be wrong.
  static const Row* MoreLikely(const Row* similar, const Row& other, bool is_wrong) {
    const bool lacks_counterpart = other.info.counterparts == 0;
    if (similar == nullptr) return lacks_counterpart || is_wrong ? &other : nullptr;
    return lacks_counterpart && similar->info.counterparts != 0 ? &other : similar;
  }

  void FindReplacement(Row& row) const {
    const bool is_server = row.info.kind == "Server" || row.info.kind == "Holder";
    // The one call of a SignleAsync service removes its server.
    if (!is_server || row.info.is_active || row.bridge_type == bridge::BridgeType::SignleAsync) {
      return;
    }
    std::string by = "a server without a handle";
    for (const Row* other : names_.at(row.name)) {
      if (other->info.kind == row.info.kind && other->info.is_active) by = other->info.module;
    }
    Add(row, Problem::Replaced, "replaced by " + by);
  }

  void FindPending(Row& row) const {
    if (row.drains.is_shut) Add(row, Problem::InboxDestroyed, "its inbox is destroyed");
    if (row.strand == nullptr && !row.is_queued) return;
    if (row.info.pending == 0 || row.drains.is_in_progress || row.drains.is_awaited) return;
    if (row.drains.drainer == 0) {
      if (row.is_queued && CountWorkers() == 0) {
        Add(row, Problem::NoWorkers, "no workers");
      } else {
        Add(row, Problem::NeverDrained, "never drained");
      }
      return;
    }
    const auto time = now_ - std::max(row.drains.latest_at, row.drains.pending_since);
    if (time >= std::chrono::seconds(row.is_queued ? 1 : 10)) {
      Add(row, Problem::NotDrained, "not drained for " + Seconds(time));
    }
  }

  static void FindRunning(Row& row) {
    if (!row.info.running_for || *row.info.running_for < std::chrono::seconds(1)) return;
    std::string text = "running for ";
    if (!row.is_running_time_exact) text += "at least ";
    text += Seconds(*row.info.running_for) + " on thread " + std::to_string(row.info.thread) +
            " (" + row.info.thread_name + ")";
    Add(row, Problem::Running, text);
  }

  static void FindWaits(Row& row) {
    if (!row.info.waiting_for || *row.info.waiting_for < std::chrono::seconds(1)) return;
    Add(row, Problem::CallsWait,
        "calls that wait: " + std::to_string(row.info.waiting) + ", for " +
            Seconds(*row.info.waiting_for) + " on thread " + DescribeThread(row.waiting_thread));
  }

  void FindSlow(Row& row) const {
    if (slow_limit_ == 0 || row.info.longest.count() <= slow_limit_) return;
    std::string text = "slow: " + std::to_string(row.info.longest.count() / 1'000'000) + " ms";
    const Pairing* const pairing = FindPairing(row);
    if (row.info.place == "direct" && pairing != nullptr) text += " on " + pairing->thread;
    Add(row, Problem::Slow, text);
  }

  std::vector<Row>& rows_;
  const Clock::time_point now_;
  const std::int64_t slow_limit_;
  std::unordered_map<Name, std::vector<const Row*>> names_;
};

}  // namespace

void FindProblems(std::vector<Row>& rows, Clock::time_point now, std::int64_t slow_limit) {
  const Finder finder(rows, now, slow_limit);
  for (Row& row : rows) finder.FindIn(row);
}

}  // namespace zorvix::detail
