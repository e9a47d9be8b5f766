#pragma once

#include <optional>
#include <string>
#include <vector>

#include "plugin.h"

namespace emberline {

// Everything the command line can set, with the defaults a run uses when nothing sets them.
struct Settings {
  bool continue_charging = false;
  unsigned int time_s = 0;
  unsigned int sample_period_ms = 500;
  unsigned int output_period_ms = 1000;
  bool perfetto = false;
  bool file_flag = false;
  bool timing = false;
  bool time_plugins = false;
  std::string file;
  bool ignore_error = false;
  bool quiet = false;

  float exp_smooth = 0.2f;
  unsigned int window_size = 20;
  bool no_power = false;

  bool json = false;
  bool csv = false;
  bool inline_text = false;
  bool schema = false;

  bool stats = false;
  bool cycle = false;
  bool credits = false;
  bool charge_data = false;
  bool logcat = false;
  bool ravelin = false;
  bool thermals = false;
  bool dsp = false;
  bool dsp_trace = false;
  std::vector<std::string> tail;
  bool all = false;
  bool brantley_rails = false;
  bool quillon_rails = false;
  bool quillon_dram = false;
  unsigned int quillon_dram_ms = 50;
  bool example = false;

  // True unless -e/--exp-smooth really occurred on the command line.
  bool use_window = true;

  OutputFormat format() const;
  bool wants_file() const { return file_flag || !file.empty(); }
};

// Declares and parses the options. Device booleans decide which device-only options exist.
// Returns the exit code when the program must end here (help, a parse error, bad rates).
std::optional<int> parse_command_line(int argc, const char* const* argv, Settings& settings,
                                      bool brantley, bool chipset2);

class Emberline;

// Registers the plugins the settings ask for, in the one order of the report.
void register_plugins(Emberline& engine, const Settings& settings);

}  // namespace emberline
