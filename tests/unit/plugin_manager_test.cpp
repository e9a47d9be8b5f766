#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <thread>

#include "plugin.h"

namespace emberline {
namespace {

// What the fake plugins did, which of their steps fail, and how long their on_output takes.
struct Script {
  std::string calls;
  std::set<std::string> failing;
  std::map<std::string, std::chrono::microseconds> output_time;

  bool step(const std::string& call) {
    calls += (calls.empty() ? "" : " ") + call;
    return failing.count(call) == 0;
  }
};

class FakePlugin : public Plugin {
 public:
  FakePlugin(std::string name, Script* script) : name(std::move(name)), script(script) {}
  ~FakePlugin() override { script->step("~" + name); }
  bool init() override { return script->step(name + ".init"); }
  bool on_sample() override { return script->step(name + ".sample"); }
  bool on_emit_to_perfetto() override { return script->step(name + ".emit"); }
  bool on_output() override {
    auto delay = script->output_time.find(name);
    if (delay != script->output_time.end()) std::this_thread::sleep_for(delay->second);
    return script->step(name + ".output");
  }

 private:
  std::string name;
  Script* script;
};

void add(PluginManager& manager, Script& script, const std::string& name, bool optional = false) {
  manager.add_plugin(name, std::make_shared<FakePlugin>(name, &script),
                     PluginManager::PluginFieldOptions(std::nullopt, std::nullopt, optional));
}

TEST(PluginManager, EachStepStopsAtTheFirstRequiredFailure) {
  const std::string all = "a.init b.init c.init a.sample b.sample c.sample";
  const struct {
    bool emit, b_optional;
    std::string failing;
    bool result;
    std::string calls, error;
  } cases[] = {
      {false, false, "b.init", false, "a.init b.init", "ERROR: Failed to initialize plugin 'b'\n"},
      // Being optional only matters at init: the plugin is still driven afterwards.
      {false, true, "b.init", true, all + " a.output b.output c.output", ""},
      {true, true, "b.sample", false, "a.init b.init c.init a.sample a.emit b.sample",
       "ERROR: Sample update failed for plugin 'b'\n"},
      {false, false, "b.emit", true, all + " a.output b.output c.output", ""},
      {true, false, "b.emit", false, "a.init b.init c.init a.sample a.emit b.sample b.emit",
       "ERROR: Emit to perfetto failed for plugin 'b'\n"},
      {false, false, "b.output", false, all + " a.output b.output",
       "ERROR: Output update failed for plugin 'b'\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing + (c.emit ? " emitting" : "") + (c.b_optional ? " optional" : ""));
    Script script;
    script.failing = {c.failing};
    PluginManager manager(c.emit);
    for (auto name : {"a", "b", "c"}) add(manager, script, name, name[0] == 'b' && c.b_optional);
    testing::internal::CaptureStderr();
    EXPECT_EQ(manager.init(false) && manager.on_sample() && manager.on_output(), c.result);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.error);
    EXPECT_EQ(script.calls, c.calls);
  }
}

TEST(PluginManager, TimingHoldsWholeMillisecondsOfTheLastReportAndPluginsGoLastToFirst) {
  Script script;
  script.failing = {"rails.init"};
  auto manager = std::make_unique<PluginManager>(false);
  add(*manager, script, "zeta");
  add(*manager, script, "rails", true);
  add(*manager, script, "alpha");
  ASSERT_TRUE(manager->init(true));
  // Timing comes first and follows registration order, not key order; it starts out null.
  EXPECT_EQ(manager->to_str(), "[Timing] zeta: null | alpha: null\n[zeta] \n[alpha] ");

  script.output_time = {{"alpha", std::chrono::microseconds(3500)}};
  ASSERT_TRUE(manager->on_output());
  float alpha = manager->timing_section->plugin_times.at("alpha")->value;
  EXPECT_GE(alpha, 3.0f);
  EXPECT_EQ(alpha, std::floor(alpha));
  using std::chrono::nanoseconds;
  // clang-format off
  for (auto [ns, ms] : {std::pair{999LL, 0.0f}, {900'000, 0.0f}, {1'000'000, 1.0f},
                        {1'999'999, 1.0f}, {12'345'678, 12.0f}, {3'600'000'000'000, 3.6e6f}}) {
    // clang-format on
    EXPECT_EQ(detail::whole_milliseconds(nanoseconds(ns)), ms) << ns;
  }

  // Plugins a failed report never reached show zero rather than the previous report's time.
  script.failing = {"zeta.output"};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager->on_output());
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(manager->timing_section->to_str(), "zeta: 0.0 | alpha: 0.0");

  script.calls.clear();
  manager.reset();
  EXPECT_EQ(script.calls, "~alpha ~rails ~zeta");
}

}  // namespace
}  // namespace emberline
