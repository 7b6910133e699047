#include "browser/core_question.h"

namespace sorvalen::browser {

CoreQuestion::~CoreQuestion() = default;

bool CoreQuestion::Ask(mDNS* m, const domainname& name, uint16_t type, mDNSInterfaceID interface_id,
                       AnswerListener* listener, int role) {
  auto question = std::make_unique<DNSQuestion>();
  question->qname = name;
  question->qtype = type;
  question->qclass = kDNSClass_IN;
  question->InterfaceID = interface_id;
  question->QuestionCallback = Callback;
  question->QuestionContext = this;
  listener_ = listener;
  role_ = role;
  if (mDNS_StartQuery(m, question.get()) != mStatus_NoError)
    return false;
  question_ = std::move(question);
  return true;
}

bool CoreQuestion::Browse(mDNS* m, const domainname& type, const domainname& domain,
                          mDNSInterfaceID interface_id, AnswerListener* listener, int role) {
  auto question = std::make_unique<DNSQuestion>();
  listener_ = listener;
  role_ = role;
  if (mDNS_StartBrowse(m, question.get(), &type, &domain, interface_id, mDNSfalse, Callback, this) !=
      mStatus_NoError)
    return false;
  question_ = std::move(question);
  return true;
}

void CoreQuestion::Stop(mDNS* m, QuestionGraveyard* graveyard) {
  if (question_ == nullptr)
    return;
  mDNS_StopQuery(m, question_.get());
  graveyard->Bury(std::move(question_));
}

void CoreQuestion::Callback(mDNS* /*m*/, DNSQuestion* question, const ResourceRecord* answer, QC_result add) {
  auto* self = static_cast<CoreQuestion*>(question->QuestionContext);
  if (answer == nullptr || answer->rdata == nullptr || self == nullptr)
    return;
  // The core calls this as a plain C function: nothing may leave by exception.
  try {
    self->listener_->OnAnswer(self->role_, *answer, add == QC_add);
  } catch (...) {
  }
}

}  // namespace sorvalen::browser
