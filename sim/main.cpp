#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string_view>

#include "device_log.h"
#include "profile.h"
#include "run.h"
#include "sandbox.h"

namespace sim = emberline::sim;

int main(int argc, char** argv) {
  if (argc > 1 && argv[1] == sim::kLaunchFlag) return sim::launch(argc, argv);
  // Inside the sandbox /system/bin/logcat leads here.
  if (std::string_view(argv[0]).ends_with("/logcat")) return sim::logcat_main(argc, argv);

  CLI::App app{"emberline-sim: a simulated headset to run emberline and its tests in."};
  app.require_subcommand(1);
  app.footer(
      "Run 'emberline-sim run --help' for the options of run. COMMAND's exit status, standard "
      "streams and signals (INT, TERM, HUP) are the sim's.");

  sim::RunOptions options;
  options.visible = {EMBERLINE_SIM_SOURCE_DIR, EMBERLINE_SIM_BINARY_DIR};
  std::vector<std::string> names;
  for (const sim::Profile& p : sim::profiles()) names.push_back(p.name);

  CLI::App* run = app.add_subcommand(
      "run", "Lay out a headset, start its model and run COMMAND where its files stand");
  run->add_option("--profile", options.profile, "Headset to simulate")
      ->check(CLI::IsMember(names))
      ->capture_default_str();
  run->add_flag("--frozen", options.frozen,
                "Start no model: files keep what the profile or a test wrote");
  run->add_option("--seed", options.seed, "Seed of the workload")->capture_default_str();
  run->add_option("--state", options.state,
                  "State directory to use and keep (default: a temporary one, removed at the end)");
  run->add_option("command", options.command, "COMMAND [ARG...], after --")->required();

  CLI11_PARSE(app, argc, argv);
  try {
    return sim::run(options);
  } catch (const std::exception& e) {
    std::cerr << "emberline-sim: " << e.what() << std::endl;
    return sim::kSimFailed;
  }
}
