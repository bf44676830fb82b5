// A plug-in for the framework's own tests: built once so that it leaves memory when it is unloaded,
// and once so that it stays.
#include <urcu-qsbr.h>

#include <atomic>

#include "Base/RcuAnnotate.h"
#include "Base/RcuCallbacks.h"
#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"

#ifdef SAMPLE_VERSION
extern "C" {
extern const char sfePluginVersion[];
const char sfePluginVersion[] = SAMPLE_VERSION;
}
#endif

// The test program's: how many callbacks of the library's code have run.
extern "C" std::atomic<int> bessSampleCallbacks;

namespace {

struct Garbage {
  rcu_head head;
};

class Sample final : public Module {
 public:
  void DeInit() override {
    auto* garbage = new Garbage;
    SFE_RCU_RETIRE(garbage);
    RcuCallbacks::queued();
    urcu_qsbr_call_rcu(&garbage->head, [](rcu_head* head) {
      auto* retired = caa_container_of(head, Garbage, head);
      SFE_RCU_RECLAIM(retired);
      delete retired;
      RcuCallbacks::ran();
      bessSampleCallbacks.fetch_add(1);
    });
  }
};

const ModuleRegistration<Sample> kSampleClass({.name = SAMPLE_CLASS, .help = "sample"});

}  // namespace
