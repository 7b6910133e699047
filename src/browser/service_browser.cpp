// ServiceBrowser: the public face of the browser engine.
#include "sorvalen/service_browser.h"

#include "browser/browse_watch.h"
#include "browser/browser_engine.h"
#include "browser/host_watch.h"
#include "browser/request_check.h"
#include "browser/types_watch.h"

namespace sorvalen {

// Only the engine, kept out of the class so that nothing of it is exported.
struct ServiceBrowser::Impl {
  explicit Impl(Threading threading) : engine(threading) {}
  browser::BrowserEngine engine;
};

namespace {

uint64_t refused(const std::string& problem, std::string* error) {
  if (error != nullptr)
    *error = problem;
  return 0;
}

}  // namespace

ServiceBrowser::ServiceBrowser(Threading threading) : impl_(std::make_unique<Impl>(threading)) {}

ServiceBrowser::~ServiceBrowser() = default;

bool ServiceBrowser::Start(std::string* error) {
  std::string problem;
  const bool started = impl_->engine.Start(&problem);
  if (!started && error != nullptr)
    *error = problem;
  return started;
}

void ServiceBrowser::Stop() {
  impl_->engine.Stop();
}

ServiceBrowser::WatchId ServiceBrowser::Browse(const BrowseRequest& request, InstanceCallback callback,
                                               std::string* error) {
  browser::BrowseScope scope;
  if (std::string problem = browser::browse_problem(request, &scope); !problem.empty())
    return refused(problem, error);
  std::string problem;
  const WatchId id = impl_->engine.Add(
      [scope, callback = std::move(callback)](browser::WatchContext* context) {
        return std::make_unique<browser::BrowseWatch>(context, scope, callback);
      },
      &problem);
  return id != 0 ? id : refused(problem, error);
}

ServiceBrowser::WatchId ServiceBrowser::BrowseTypes(const std::string& domain,
                                                    const std::string& interface_name, TypeCallback callback,
                                                    std::string* error) {
  domainname name;
  std::string problem = browser::domain_problem(domain, &name);
  if (problem.empty())
    problem = browser::interface_problem(interface_name);
  if (!problem.empty())
    return refused(problem, error);
  const WatchId id = impl_->engine.Add(
      [name, interface_name, callback = std::move(callback)](browser::WatchContext* context) {
        return std::make_unique<browser::TypesWatch>(context, name, interface_name, callback);
      },
      &problem);
  return id != 0 ? id : refused(problem, error);
}

ServiceBrowser::WatchId ServiceBrowser::ResolveHost(const std::string& host, HostCallback callback,
                                                    std::string* error) {
  domainname name;
  std::string problem = browser::host_problem(host, &name);
  if (!problem.empty())
    return refused(problem, error);
  const WatchId id = impl_->engine.Add(
      [name, callback = std::move(callback)](browser::WatchContext* context) {
        return std::make_unique<browser::HostWatch>(context, name, callback);
      },
      &problem);
  return id != 0 ? id : refused(problem, error);
}

void ServiceBrowser::Cancel(WatchId id) {
  impl_->engine.Cancel(id);
}

int ServiceBrowser::Descriptor() const {
  return impl_->engine.Descriptor();
}

void ServiceBrowser::ProcessReady() {
  impl_->engine.ProcessReady();
}

}  // namespace sorvalen
