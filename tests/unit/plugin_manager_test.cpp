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
  std::vector<std::string> calls;
  std::set<std::string> failing;
  std::map<std::string, std::chrono::microseconds> output_time;
};

class FakePlugin : public Plugin {
 public:
  FakePlugin(std::string name, Script* script) : name(std::move(name)), script(script) {}
  ~FakePlugin() override { script->calls.push_back("~" + name); }
  bool init() override { return step("init"); }
  bool on_sample() override { return step("sample"); }
  bool on_emit_to_perfetto() override { return step("emit"); }
  bool on_output() override {
    auto delay = script->output_time.find(name);
    if (delay != script->output_time.end()) std::this_thread::sleep_for(delay->second);
    return step("output");
  }

 private:
  bool step(const std::string& what) {
    script->calls.push_back(name + "." + what);
    return script->failing.count(name + "." + what) == 0;
  }
  std::string name;
  Script* script;
};

void add(PluginManager& manager, Script& script, const std::string& name, bool optional = false,
         std::optional<std::string> description = std::nullopt) {
  manager.add_plugin(name, std::make_shared<FakePlugin>(name, &script),
                     PluginManager::PluginFieldOptions(description, std::nullopt, optional));
}

// The calls since the last look, space separated.
std::string take_calls(Script& script) {
  std::string out;
  for (const auto& call : script.calls) out += (out.empty() ? "" : " ") + call;
  script.calls.clear();
  return out;
}

float time_of(const PluginManager& manager, const std::string& key) {
  return manager.timing_section->plugin_times.at(key)->value;
}

TEST(PluginManager, WithoutPluginsEverythingSucceeds) {
  PluginManager plain(false), timed(false);
  EXPECT_TRUE(plain.init(false));
  EXPECT_TRUE(plain.on_sample());
  EXPECT_TRUE(plain.on_output());
  EXPECT_EQ(plain.to_json(), "{}");
  EXPECT_TRUE(timed.init(true));
  EXPECT_EQ(timed.to_str(), "[Timing] ");
  EXPECT_EQ(timed.to_json(), R"({"timing":{}})");
}

TEST(PluginManager, FailingOptionalPluginIsLeftOutQuietly) {
  Script script;
  PluginManager manager(false);
  add(manager, script, "zeta", false, "Last letter");
  add(manager, script, "rails", true);
  add(manager, script, "alpha");
  script.failing = {"rails.init"};
  testing::internal::CaptureStderr();
  EXPECT_TRUE(manager.init(true));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(take_calls(script), "zeta.init rails.init alpha.init");
  // Timing comes first and keeps registration order, not key order; its values start null.
  EXPECT_EQ(manager.to_str(), "[Timing] zeta: null | alpha: null\n[zeta] \n[alpha] ");
  EXPECT_EQ(manager.get_description(OutputFormat::TEXT),
            "Key             Description\n"
            "-----           -----\n"
            "Timing     :    Plugin Timing\n"
            "    zeta   :    zeta\n"
            "    alpha  :    alpha\n"
            "zeta       :    Last letter\n"
            "alpha      :    \n");
  EXPECT_EQ(manager.timing_section->plugin_times.count("rails"), 0u);
  // Being optional only matters at init: the plugin is still driven afterwards.
  EXPECT_TRUE(manager.on_sample());
  EXPECT_TRUE(manager.on_output());
  EXPECT_EQ(take_calls(script),
            "zeta.sample rails.sample alpha.sample zeta.output rails.output alpha.output");
}

TEST(PluginManager, FailingRequiredPluginStopsInit) {
  Script script;
  PluginManager manager(false);
  for (auto name : {"a", "b", "c", "d", "e"}) add(manager, script, name);
  script.failing = {"c.init"};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.init(false));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: Failed to initialize plugin 'c'\n");
  EXPECT_EQ(take_calls(script), "a.init b.init c.init");
  EXPECT_EQ(manager.to_json(), R"({"a":{},"b":{}})");
  EXPECT_EQ(manager.plugins[0].second.first->get_prefix(), "");  // metadata never updated
}

TEST(PluginManager, SampleStepStopsAtFirstFailure) {
  struct Case {
    bool emit;
    std::set<std::string> failing;
    bool result;
    std::string calls, error;
  } cases[] = {
      {false, {"b.emit"}, true, "a.sample b.sample c.sample", ""},
      {true, {}, true, "a.sample a.emit b.sample b.emit c.sample c.emit", ""},
      {true,
       {"b.sample"},
       false,
       "a.sample a.emit b.sample",
       "ERROR: Sample update failed for plugin 'b'\n"},
      {true,
       {"b.emit"},
       false,
       "a.sample a.emit b.sample b.emit",
       "ERROR: Emit to perfetto failed for plugin 'b'\n"},
  };
  for (const auto& c : cases) {
    Script script;
    PluginManager manager(c.emit);
    for (auto name : {"a", "b", "c"}) add(manager, script, name);
    ASSERT_TRUE(manager.init(false));
    take_calls(script);
    script.failing = c.failing;
    testing::internal::CaptureStderr();
    EXPECT_EQ(manager.on_sample(), c.result);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.error);
    EXPECT_EQ(take_calls(script), c.calls);
  }
}

TEST(PluginManager, OutputTimesAreWholeMillisecondsResetEachReport) {
  using std::chrono::microseconds;
  Script script;
  PluginManager manager(false);
  for (auto name : {"a", "b", "c"}) add(manager, script, name);
  ASSERT_TRUE(manager.init(true));
  EXPECT_TRUE(manager.timing_section->plugin_times.at("a")->is_null);

  script.output_time = {{"c", microseconds(3500)}};
  EXPECT_TRUE(manager.on_output());
  EXPECT_EQ(time_of(manager, "a"), 0.0f);
  EXPECT_GE(time_of(manager, "c"), 3.0f);
  EXPECT_EQ(time_of(manager, "c"), std::floor(time_of(manager, "c")));

  // A failure at b leaves a's fresh time and zeros, not stale times, for the rest.
  script.output_time = {{"a", microseconds(2500)}};
  script.failing = {"b.output"};
  take_calls(script);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: Output update failed for plugin 'b'\n");
  EXPECT_EQ(take_calls(script), "a.output b.output");
  EXPECT_GE(time_of(manager, "a"), 2.0f);
  EXPECT_EQ(manager.timing_section->plugin_times.at("b")->to_str(), "0.0");
  EXPECT_EQ(manager.timing_section->plugin_times.at("c")->to_str(), "0.0");
}

TEST(PluginManager, ReleasesPluginsLastToFirst) {
  Script script;
  {
    PluginManager manager(false);
    for (auto name : {"a", "b", "c", "d", "e"}) add(manager, script, name, name[0] == 'c');
    script.failing = {"c.init"};
    ASSERT_TRUE(manager.init(true));
    take_calls(script);
  }
  EXPECT_EQ(take_calls(script), "~e ~d ~c ~b ~a");
}

}  // namespace
}  // namespace emberline
