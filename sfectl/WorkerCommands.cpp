#include <memory>
#include <optional>

#include "sfectl/Commands.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

constexpr uint32_t kMaxWid = 35;
constexpr uint32_t kMaxTaskId = 63;

// The words that several of the commands take; `Request` has fields of these names.
template <class Request>
CLI::Option* addWid(CLI::App* command,
                    const std::shared_ptr<Request>& request,
                    const char* name,
                    const char* help) {
  return command
      ->add_option_function<uint32_t>(
          name, [request](uint32_t wid) { request->set_wid(wid); }, help)
      ->required()
      ->check(CLI::Range(0u, kMaxWid));
}

template <class Request>
void addTask(CLI::App* command, const std::shared_ptr<Request>& request) {
  command
      ->add_option_function<std::string>(
          "MODULE", [request](const std::string& name) { request->set_module(name); })
      ->required();
  command
      ->add_option_function<uint32_t>(
          "TASKID", [request](uint32_t id) { request->set_task_id(id); }, "0 when left out")
      ->check(CLI::Range(0u, kMaxTaskId));
}

void addWorkerAdd(CLI::App& worker, Session& session) {
  auto request = std::make_shared<bess::pb::AddWorkerRequest>();
  auto* command = worker.add_subcommand("add", "Start a worker");
  addWid(command, request, "WID", "");
  command->add_option_function<uint32_t>(
      "--core", [request](uint32_t core) { request->set_core(core); }, "Pin it to this core");
  session.bind(command, [request](Session& s) { s.client().call(&Stub::AddWorker, *request); });
}

void addWorkerDel(CLI::App& worker, Session& session) {
  auto request = std::make_shared<bess::pb::DestroyWorkerRequest>();
  auto* command = worker.add_subcommand("del", "Stop and remove a worker");
  addWid(command, request, "WID", "");
  session.bind(command, [request](Session& s) { s.client().call(&Stub::DestroyWorker, *request); });
}

void addTaskAttach(CLI::App& task, Session& session) {
  auto request = std::make_shared<bess::pb::AttachTaskRequest>();
  auto* command = task.add_subcommand("attach", "Let a worker run a module's task");
  addTask(command, request);
  addWid(command, request, "--worker", "The worker's number");
  command
      ->add_option_function<uint64_t>(
          "--rate", [request](uint64_t rate) { request->set_rate(rate); }, "Runs per second")
      ->check(CLI::PositiveNumber);
  session.bind(command, [request](Session& s) { s.client().call(&Stub::AttachTask, *request); });
}

void addTaskDetach(CLI::App& task, Session& session) {
  auto request = std::make_shared<bess::pb::TaskRequest>();
  auto* command = task.add_subcommand("detach", "Take a task from its worker");
  addTask(command, request);
  session.bind(command, [request](Session& s) { s.client().call(&Stub::DetachTask, *request); });
}

}  // namespace

void addWorkerCommands(CLI::App& app, Session& session) {
  auto* worker = app.add_subcommand("worker", "Threads that forward packets");
  worker->require_subcommand(1);
  addWorkerAdd(*worker, session);
  addWorkerDel(*worker, session);
  session.bind(worker->add_subcommand("show", "List the workers"), [](Session& s) {
    s.print(workerReport(s.client().call(&Stub::ListWorkers).workers()));
  });

  auto* task = app.add_subcommand("task", "Which worker runs which task of a module");
  task->require_subcommand(1);
  addTaskAttach(*task, session);
  addTaskDetach(*task, session);
  session.bind(task->add_subcommand("show", "List the tasks"),
               [](Session& s) { s.print(taskReport(s.client().call(&Stub::ListTasks).tasks())); });
}

}  // namespace Sfectl
