#include <gtest/gtest.h>

#include <functional>

#include "plugin.h"
#include "report_tree.h"

namespace emberline {
namespace {

using O = Section::FieldOptions;

std::shared_ptr<ISerializable> one() {
  return holding<Value<unsigned int>>(1u);
}

struct TreeCase {
  const char* what;
  std::function<std::shared_ptr<Section>()> build;
  std::string text, inline_text, json, csv_header, csv_data;
};

// Nesting without values on the way down, and an empty section at the end.
std::shared_ptr<Section> hollow_tree(bool update) {
  auto root = std::make_shared<Section>();
  root->add_subsection("outer", O())->add_subsection("inner", O())->add_value("x", one(), O());
  root->add_subsection("empty", O());
  if (update) root->update_tree_metadata(0, "");
  return root;
}

TEST(SectionForms, WalkTrees) {
  const TreeCase cases[] = {
      {"empty root", [] { return std::make_shared<Section>(); }, "", "", "{}", "", ""},
      {"single value",
       [] {
         auto s = std::make_shared<Section>();
         s->add_value("a", one(), O());
         return s;
       },
       "a: 1", "a=1", R"({"a":1})", "a", "1"},
      {"hollow nesting", [] { return hollow_tree(true); }, "[outer] \n    [inner] x: 1\n[empty] ",
       "outer=(inner=(x=1)),empty=()", R"({"outer":{"inner":{"x":1}},"empty":{}})",
       "outer.inner.x,", "1,"},
      {"hollow nesting before metadata", [] { return hollow_tree(false); },
       "[outer] [inner] x: 1\n[empty] ", "outer=(inner=(x=1)),empty=()",
       R"({"outer":{"inner":{"x":1}},"empty":{}})", "x,", "1,"},
      {"empty section after values",
       [] {
         auto root = std::make_shared<Section>();
         root->add_value("a", one(), O());
         auto p = root->add_subsection("p", O());
         p->add_value("b", holding<RoundedValue<1>>(2.0f), O());
         p->add_subsection("e", O("described", "E"));
         root->update_tree_metadata(0, "");
         return root;
       },
       "a: 1\n[p] b: 2.0\n    [E] ", "a=1,p=(b=2.0,E=())", R"({"a":1,"p":{"b":2.0,"e":{}}})",
       "a,p.b,", "1,2.0,"},
      {"value and section share a name",
       [] {
         auto root = std::make_shared<Section>();
         root->add_value("cpu", one(), O(std::nullopt, "CPU load"));
         root->add_subsection("cpu", O(std::nullopt, "Cores"))
             ->add_value("freq", holding<GigahertzValue<3>>(), O());
         root->update_tree_metadata(0, "");
         return root;
       },
       "CPU load: 1\n[Cores] freq: null", "CPU load=1,Cores=(freq=null)",
       R"({"cpu":1,"cpu":{"freq":null}})", "cpu,cpu.freq", "1,null"},
      {"front insertion and duplicate names",
       [] {
         auto root = std::make_shared<Section>();
         root->add_value("a", one(), O());
         root->add_value("b", holding<Value<unsigned int>>(2u), O());
         root->add_value("c", holding<Value<unsigned int>>(3u), O(), true);
         EXPECT_EQ(root->add_value("a", holding<Value<unsigned int>>(9u), O()), nullptr);
         auto s = root->add_subsection("s", O());
         s->add_value("x", one(), O());
         EXPECT_EQ(root->add_subsection("s", O()), nullptr);
         EXPECT_EQ(root->add_subsection("s", std::make_shared<Section>(), O()), nullptr);
         root->update_tree_metadata(0, "");
         return root;
       },
       "c: 3 | a: 1 | b: 2\n[s] x: 1", "c=3,a=1,b=2,s=(x=1)", R"({"c":3,"a":1,"b":2,"s":{"x":1}})",
       "c,a,b,s.x", "3,1,2,1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto tree = c.build();
    EXPECT_EQ(tree->to_str(), c.text);
    EXPECT_EQ(tree->to_inline_str(), c.inline_text);
    EXPECT_EQ(tree->to_json(), c.json);
    EXPECT_EQ(tree->_to_csv(true), c.csv_header);
    EXPECT_EQ(tree->_to_csv(false), c.csv_data);
    EXPECT_EQ(tree->to_csv(), c.csv_data);
  }
}

TEST(SectionForms, ReportExample) {
  auto root = report_tree();
  EXPECT_EQ(root->to_str(),
            "sequence: 3 | timestamp: 1.500\n"
            "[Power (BATTERY)] raw: 2.250W | voltage: 4.200V\n"
            "[stats] Load: 12.500%\n"
            "    [CPU] freq: 1.200Ghz | mode: null");
  EXPECT_EQ(root->to_inline_str(),
            "sequence=3,timestamp=1.500,Power (BATTERY)=(raw=2.250W,voltage=4.200V),"
            "stats=(Load=12.500%,CPU=(freq=1.200Ghz,mode=null))");
  EXPECT_EQ(root->to_json(),
            R"({"sequence":3,"timestamp":1.500,"power":{"raw":2.250,"voltage":4.200},)"
            R"("stats":{"load":0.12500,"cpu":{"freq":1.200,"mode":null}}})");
  EXPECT_EQ(root->_to_csv(true),
            "sequence,timestamp,power.raw,power.voltage,stats.load,stats.cpu.freq,stats.cpu.mode");
  EXPECT_EQ(root->_to_csv(false), "3,1.500,2.250,4.200,0.12500,1.200,null");
}

TEST(SectionForms, MetadataFollowsKeysDownTheTree) {
  Section root;
  auto power = root.add_subsection("power", O(std::nullopt, "Power"));
  auto x = power->add_subsection("x", O());
  EXPECT_EQ(x->get_depth(), 0u);
  EXPECT_EQ(x->get_prefix(), "");
  root.update_tree_metadata(0, "");
  EXPECT_EQ(power->get_depth(), 1u);
  EXPECT_EQ(power->get_prefix(), "power.");
  EXPECT_EQ(x->get_depth(), 2u);
  EXPECT_EQ(x->get_prefix(), "power.x.");
}

TEST(SectionForms, TreeSharesValuesWithTheirWriter) {
  Section root;
  auto watts = std::make_shared<UnitValue<3, 'W'>>();
  root.add_value("w", watts, O());
  EXPECT_EQ(root.to_str(), "w: null");
  watts->set(1.5f);
  EXPECT_EQ(root.to_str(), "w: 1.500W");
}

}  // namespace
}  // namespace emberline
