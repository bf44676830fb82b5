#include "sfectl/Cli.h"

#include <ostream>

#include <CLI/CLI.hpp>

#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"
#include "sfectl/Session.h"

namespace Sfectl {
namespace {

void addEverything(CLI::App& app, Session& session) {
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--socket", session.socket, "The daemon's address: unix:PATH or HOST:PORT")
      ->envname("SFE_SOCKET")
      ->capture_default_str();
  app.add_option("--tls-cert", session.tls.cert, "Our certificate (PEM), for HOST:PORT with TLS")
      ->envname("SFE_TLS_CERT");
  app.add_option("--tls-key", session.tls.key, "Its private key (PEM)")->envname("SFE_TLS_KEY");
  app.add_option("--tls-ca", session.tls.ca, "Who signs the daemon's certificate (PEM)")
      ->envname("SFE_TLS_CA");
  app.add_flag("--json", session.json, "Print JSON");
  app.set_version_flag("--version", "sfectl " SFE_VERSION);
  addSystemCommands(app, session);
  addWorkerCommands(app, session);
  addPortCommands(app, session);
  addModuleCommands(app, session);
  addGraphCommands(app, session);
  addPluginCommands(app, session);
  addIntfCommands(app, session);
  addRouteCommands(app, session);
  addCounterCommands(app, session);
  addConfigCommands(app, session);
  addMonitorCommands(app, session);
  addExplainCommands(app, session);
  addShowCommands(app, session);
  addGraphShow(app, session);
  addCaptureCommands(app, session);
  addTopCommands(app, session);
}

int report(std::ostream& err, const std::exception& error, int code) {
  err << "sfectl: " << error.what() << std::endl;
  return code;
}

}  // namespace

int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
  CLI::App app("Talks to the forwarding daemon", "sfectl");
  Session session(out, err);
  addEverything(app, session);
  try {
    // The library takes the words from the back.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::RequiredError& error) {
    // A misspelt command reads as a missing one; the word itself says more.
    if (const auto words = app.remaining(true); !words.empty()) {
      err << "sfectl: unexpected '" << printable(words.front()) << "'"
          << "\nRun with --help for more information." << std::endl;
      return kExitUsage;
    }
    app.exit(error, out, err);
    return kExitUsage;
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? kExitOk : kExitUsage;
  }
  try {
    session.runChosen();
    out.flush();
    return out ? kExitOk : kExitRuntime;
  } catch (const UsageError& error) {
    return report(err, error, kExitUsage);
  } catch (const std::exception& error) {
    return report(err, error, kExitRuntime);
  }
}

}  // namespace Sfectl
