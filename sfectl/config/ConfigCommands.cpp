// apply, save, import.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <ostream>

#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"
#include "sfectl/config/ConfigParser.h"
#include "sfectl/config/ConfigWriter.h"
#include "sfectl/config/Differ.h"
#include "sfectl/config/RunningConfig.h"
#include "sfectl/config/SmcrouteImport.h"

namespace Sfectl {
namespace {

constexpr const char* kDefaultFile = "/etc/sfe/sfe.yaml";

struct ApplyWords {
  std::string file = kDefaultFile;
  bool dryRun = false;
  bool check = false;
};

void report(Session& session, const Plan& plan, bool done) {
  if (session.json) {
    session.print(Json{{"applied", done}, {"steps", plan.toJson()}});
    return;
  }
  if (!done) {
    plan.print(session.out());
  }
  const size_t count = plan.steps.size();
  if (count == 0) {
    session.out() << "nothing to change\n";
  } else {
    session.out() << count << (count == 1 ? " step" : " steps") << (done ? " done" : " to do")
                  << "\n";
  }
}

// What went wrong, for a program: where in which file, null where that says nothing.
Json errorJson(const Json& file, const Place& place, const std::string& message) {
  return {{"file", file},
          {"line", place.line > 0 ? Json(place.line) : Json(nullptr)},
          {"column", place.column > 0 ? Json(place.column) : Json(nullptr)},
          {"message", message}};
}

void printFailure(Session& session, const ApplyWords& words, const Json& errors) {
  if (session.json && words.check) {
    session.print(Json{{"file", words.file}, {"good", false}, {"errors", errors}});
  } else if (session.json) {
    session.print(Json{{"applied", false}, {"errors", errors}});
  }
}

// Errors: RuntimeError after every problem was printed.
ParsedConfig goodFile(Session& session, const ApplyWords& words) {
  const std::string& path = words.file;
  try {
    return readConfigFile(path);
  } catch (const RuntimeError& error) {
    printFailure(session, words, Json::array({errorJson(path, {}, error.what())}));
    throw;
  } catch (const FileError& error) {
    Json errors = Json::array();
    for (const Problem& problem : error.problems().sorted()) {
      errors.push_back(errorJson(path, problem.place, problem.text));
    }
    printFailure(session, words, errors);
    if (!session.json) {
      session.err() << error.what() << std::endl;
    }
    throw RuntimeError(std::to_string(error.count()) +
                       (error.count() == 1 ? " problem" : " problems") + " in " + printable(path) +
                       "; nothing was changed");
  }
}

// Errors: RuntimeError for toggles that are otherwise. Returns: those that nobody knows.
std::vector<std::string> toggles(Session& session, const Config& config) {
  return config.toggles.empty() ? std::vector<std::string>()
                                : checkToggles(config, readToggles(session.client()));
}

void change(Session& session, const ApplyWords& words, const Config& config) {
  toggles(session, config);
  const Plan plan = makePlan(config, readRunning(session.client()));
  if (!words.dryRun) {
    plan.execute(session.client());
    // Modules that were made just now have asked for theirs.
    for (const std::string& name : toggles(session, config)) {
      session.err() << "sfectl: warning: no module of the daemon asks for toggle "
                    << printable(name) << std::endl;
    }
  }
  report(session, plan, !words.dryRun);
}

void apply(Session& session, const ApplyWords& words) {
  const ParsedConfig parsed = goodFile(session, words);
  for (const std::string& warning : parsed.warnings) {
    session.err() << warning << std::endl;
  }
  if (words.check) {
    if (session.json) {
      session.print(Json{{"file", words.file}, {"good", true}});
    } else {
      session.out() << printable(words.file) << " is good\n";
    }
    return;
  }
  try {
    change(session, words, parsed.config);
  } catch (const RuntimeError& error) {
    printFailure(session, words, Json::array({errorJson(nullptr, {}, error.what())}));
    throw;
  }
}

// The file has the old text or the new one, whatever happens in between.
void replaceFile(const std::string& path, const std::string& text) {
  const std::string beside = path + ".new." + std::to_string(::getpid());
  std::ofstream file(beside, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) {
    const std::string why = std::strerror(errno);
    ::unlink(beside.c_str());
    throw RuntimeError("cannot write " + printable(beside) + ": " + why);
  }
  if (::rename(beside.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    ::unlink(beside.c_str());
    throw RuntimeError("cannot write " + printable(path) + ": " + why);
  }
}

void save(Session& session, const std::string& path) {
  const std::string text = writeConfig(configOf(readRunning(session.client())));
  try {
    parseConfig(text, path.empty() ? "the saved configuration" : path);
  } catch (const FileError& error) {
    session.err() << error.what() << "\nsfectl: warning: the daemon has what a file may not say; "
                  << "'apply' will refuse this one" << std::endl;
  }
  if (path.empty() || path == "-") {
    session.out() << text;
  } else {
    replaceFile(path, text);
  }
}

struct ImportWords {
  std::vector<std::string> files;
  bool skip = false;
};

void import(Session& session, const ImportWords& words) {
  const ImportResult result = importSmcroute(words.files);
  for (const std::string& warning : result.warnings) {
    session.err() << warning << std::endl;
  }
  for (const std::string& problem : result.problems) {
    session.err() << problem << std::endl;
  }
  if (!result.problems.empty() && !words.skip) {
    throw RuntimeError(std::to_string(result.problems.size()) +
                       " lines cannot be expressed; --skip leaves them out");
  }
  session.out() << importText(result);
}

}  // namespace

void addConfigCommands(CLI::App& app, Session& session) {
  auto words = std::make_shared<ApplyWords>();
  auto* command = app.add_subcommand("apply", "Bring the daemon to what a file says");
  command->add_option("FILE", words->file, "The configuration, '-' for standard input")
      ->capture_default_str();
  auto* dryRun = command->add_flag("--dry-run", words->dryRun, "Print the steps, change nothing");
  command->add_flag("--check", words->check, "Look at the file only; no daemon is asked")
      ->excludes(dryRun);
  session.bind(command, [words](Session& s) { apply(s, *words); });

  auto path = std::make_shared<std::string>();
  command = app.add_subcommand("save", "Write what the daemon has as such a file");
  command->add_option("FILE", *path, "Standard output when left out");
  session.bind(command, [path](Session& s) { save(s, *path); });

  auto files = std::make_shared<ImportWords>();
  command = app.add_subcommand("import", "Print the routes of SMCRoute files as such a file");
  command->add_option("FILE", files->files)->required();
  command->add_flag("--skip", files->skip, "Leave out the lines that cannot be expressed");
  session.bind(command, [files](Session& s) { import(s, *files); });
}

}  // namespace Sfectl
