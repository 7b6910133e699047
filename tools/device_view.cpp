#include "device_view.h"

#include <algorithm>

namespace {

// `now` is `before` less some records, plus new ones at the end: matches the
// two in order and returns what `before` lost and what `now` gained.
void compare(const std::vector<Endpoint>& before, const std::vector<Endpoint>& now,
             std::vector<Endpoint>* lost, std::vector<Endpoint>* gained) {
  size_t next = 0;
  for (const Endpoint& record : before) {
    if (next < now.size() && now[next] == record) {
      ++next;
    } else {
      lost->push_back(record);
    }
  }
  gained->insert(gained->end(), now.begin() + static_cast<long>(next), now.end());
}

}  // namespace

std::vector<Event> DeviceView::Follow(const std::vector<Endpoint> (&lists)[2]) {
  std::vector<Endpoint> lost;
  std::vector<Endpoint> gained;
  for (int family = 0; family < 2; ++family)
    compare(seen_[family], lists[family], &lost, &gained);

  std::vector<Event> events;
  for (const Endpoint& withdrawn : lost) {
    for (auto it = shown_.begin(); it != shown_.end();) {
      if (it->key() != withdrawn.key()) {
        ++it;
        continue;
      }
      events.push_back({EventKind::kRemove, *it, 0});
      it = shown_.erase(it);
    }
  }
  for (const Endpoint& record : gained) {
    if (std::find(shown_.begin(), shown_.end(), record) != shown_.end())
      continue;
    const auto moved = std::find_if(shown_.begin(), shown_.end(), [&](const Endpoint& shown) {
      return shown.key() == record.key() && shown.family == record.family && shown.address == record.address;
    });
    if (moved != shown_.end()) {
      events.push_back({EventKind::kUpdate, record, moved->port});
      *moved = record;
      continue;
    }
    events.push_back({EventKind::kAdd, record, 0});
    shown_.push_back(record);
    ever_found_ = true;
  }
  for (int family = 0; family < 2; ++family)
    seen_[family] = lists[family];
  return events;
}
