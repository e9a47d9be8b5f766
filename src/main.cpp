#include <csignal>
#include <string>

#include "command_line.h"
#include "crash_restore.h"
#include "emberline.h"
#include "platform/trace/perfetto.h"

namespace {

void on_stop_signal(int) {
  emberline::stop_flag = true;
}

void on_hangup(int) {
  // The terminal is gone: keep what would have reached it, including the final messages.
  emberline::utils::redirect_console_to_log();
  emberline::stop_flag = true;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGINT, on_stop_signal);
  std::signal(SIGTERM, on_stop_signal);
  std::signal(SIGHUP, on_hangup);
  // A reader that went away (`emberline | head -1`) ends the run as SIGTERM would, so that
  // charging is given back rather than left suspended by the default action.
  std::signal(SIGPIPE, on_stop_signal);
  emberline::crash_restore::install_fatal_signal_handlers();

  emberline::Settings settings;
  if (auto exit_code = emberline::parse_command_line(argc, argv, settings, emberline::is_brantley,
                                                     emberline::is_chipset2_device)) {
    return *exit_code;
  }

  int exit_code = 0;
  // Outlives the engine: the session ends after every plugin, the DSP worker included.
  emberline::crash_restore::Restore trace_mend;
  {
    emberline::Emberline engine(settings.perfetto);
    engine.set_continue_charging(settings.continue_charging);
    engine.set_log_logcat(settings.logcat);
    engine.set_quiet(settings.quiet);
    if (settings.format() != emberline::OutputFormat::TEXT) {
      engine.set_output_format(settings.format());
    }
    if (settings.wants_file()) engine.setup_file_output(settings.file);
    engine.add_timestamp_fields();
    if (settings.timing) engine.add_timing_fields();
    emberline::register_plugins(engine, settings);

    if (!engine.init(settings.time_plugins)) {
      exit_code = 1;
    } else if (settings.schema) {
      engine.print_schema();
    } else {
      // On a headset the tracing service runs the session; here the run carries its own.
      if ((settings.perfetto || settings.dsp_trace) &&
          emberline::trace::start_session(emberline::default_trace_path(), settings.quiet)) {
        trace_mend = emberline::crash_restore::Restore::trace_session();
      }
      exit_code = engine.run(settings.time_s, settings.sample_period_ms, settings.output_period_ms);
    }
  }
  emberline::trace::stop_session();
  trace_mend = {};
  return exit_code;
}
