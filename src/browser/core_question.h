// A question of the browser's core, asked on behalf of an owner that hears
// its answers come and go.
#pragma once

#include <memory>
#include <vector>

#include "mdns/mdns.h"

namespace sorvalen::browser {

class AnswerListener {
 public:
  virtual ~AnswerListener() = default;
  // `role` is what the owner gave when it asked; called inside the core.
  virtual void OnAnswer(int role, const ResourceRecord& answer, bool added) = 0;
};

// Questions stopped inside the core's callbacks are freed after the core has
// returned, never under its feet.
class QuestionGraveyard {
 public:
  void Bury(std::unique_ptr<DNSQuestion> question) { buried_.push_back(std::move(question)); }
  void Clear() { buried_.clear(); }

 private:
  std::vector<std::unique_ptr<DNSQuestion>> buried_;
};

class CoreQuestion {
 public:
  CoreQuestion() = default;
  CoreQuestion(const CoreQuestion&) = delete;
  CoreQuestion& operator=(const CoreQuestion&) = delete;
  ~CoreQuestion();  // must have been stopped

  // A plain question (A, AAAA, SRV, TXT) for `name`.
  bool Ask(mDNS* m, const domainname& name, uint16_t type, mDNSInterfaceID interface_id,
           AnswerListener* listener, int role);
  // A PTR browse of `type` ("_app._tcp", a subtype, or the type list) in `domain`.
  bool Browse(mDNS* m, const domainname& type, const domainname& domain, mDNSInterfaceID interface_id,
              AnswerListener* listener, int role);
  void Stop(mDNS* m, QuestionGraveyard* graveyard);
  bool active() const { return question_ != nullptr; }

 private:
  static void Callback(mDNS* m, DNSQuestion* question, const ResourceRecord* answer, QC_result add);

  std::unique_ptr<DNSQuestion> question_;
  AnswerListener* listener_ = nullptr;
  int role_ = 0;
};

}  // namespace sorvalen::browser
