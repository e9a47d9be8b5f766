#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "platform/zavra_os/zavra_os.h"
#include "plugin.h"

namespace emberline {
namespace {

using O = Section::FieldOptions;

// A value of class V that has been given each reading in turn; none leaves it null.
template <typename V, typename... T>
std::shared_ptr<V> holding(T... readings) {
  auto value = std::make_shared<V>();
  (value->set(readings), ...);
  return value;
}

TEST(Values, RenderEachForm) {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  constexpr float kInf = std::numeric_limits<float>::infinity();
  auto cleared = holding<UnitValue<1, 'W'>>(5.0f);
  cleared->set_null();
  const struct {
    const char* what;
    std::shared_ptr<ISerializable> value;
    std::string text, json, csv;
  } cases[] = {
      {"reading cleared", cleared, "null", "null", "null"},
      {"string never set", holding<StringValue>(), "null", "null", "null"},
      {"switch", holding<SwitchValue>(true), "on", "true", "true"},
      {"switch off", holding<SwitchValue>(false), "off", "false", "false"},
      // 2.675f is 2.67499995..., so rounding from the stored float goes down.
      {"rounding", holding<RoundedValue<2>>(2.675f), "2.67", "2.67", "2.67"},
      {"timestamp keeps double precision", holding<TimestampValue<3>>(1700000000.1239),
       "1700000000.124", "1700000000.124", "1700000000.124"},
      {"unit letter", holding<UnitValue<3, 'A'>>(0.125f), "0.125A", "0.125", "0.125"},
      {"gigahertz", holding<GigahertzValue<3>>(1.2f), "1.200Ghz", "1.200", "1.200"},
      {"percentage", holding<PercentageValue<3>>(0.125f), "12.500%", "0.12500", "0.12500"},
      {"nan", holding<PercentageValue<3>>(kNan), "nan%", "nan", "nan"},
      {"inf", holding<UnitValue<3, 'W'>>(-kInf), "-infW", "-inf", "-inf"},
      // Loop figures are kept unsigned but an overrun's negative wait reads as a number.
      {"negative loop figure", holding<SignedFigureValue>(static_cast<unsigned long>(-1304l)),
       "-1304", "-1304", "-1304"},
      {"positive loop figure", holding<SignedFigureValue>(496ul), "496", "496", "496"},
      {"string", holding<StringValue>(std::string("a \"b\", c")), "a \"b\", c", "\"a \"b\", c\"",
       "a \"b\", c"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.value->to_str(), c.text);
    EXPECT_EQ(c.value->to_inline_str(), c.text);
    EXPECT_EQ(c.value->to_json(), c.json);
    EXPECT_EQ(c.value->to_csv(), c.csv);
  }
}

// A root value, and a section nested two deep; only some fields labelled or described.
std::shared_ptr<Section> report_tree() {
  auto root = std::make_shared<Section>();
  root->add_value("sequence", holding<Value<unsigned long>>(3ul),
                  O("Incrementing output sequence number"));
  auto stats = root->add_subsection("stats", O("Stats about the device"));
  stats->add_value("load", holding<PercentageValue<3>>(0.125f), O("Busy time share", "Load"));
  auto cpu = stats->add_subsection("cpu", O(std::nullopt, "CPU"));
  cpu->add_value("freq", holding<GigahertzValue<3>>(1.2f), O());
  cpu->add_value("mode", holding<SwitchValue>(), O());
  root->update_tree_metadata(0, "");
  return root;
}

TEST(SectionForms, WalkTrees) {
  const struct {
    const char* what;
    std::function<std::shared_ptr<Section>()> build;
    std::string text, inline_text, json, csv_header, csv_data;
  } cases[] = {
      {"report example", report_tree,
       "sequence: 3\n[stats] Load: 12.500%\n    [CPU] freq: 1.200Ghz | mode: null",
       "sequence=3,stats=(Load=12.500%,CPU=(freq=1.200Ghz,mode=null))",
       R"({"sequence":3,"stats":{"load":0.12500,"cpu":{"freq":1.200,"mode":null}}})",
       "sequence,stats.load,stats.cpu.freq,stats.cpu.mode", "3,0.12500,1.200,null"},
      {"empty root", [] { return std::make_shared<Section>(); }, "", "", "{}", "", ""},
      {"nesting without values, then an empty section",
       [] {
         auto root = std::make_shared<Section>();
         root->add_subsection("outer", O())
             ->add_subsection("inner", O())
             ->add_value("x", holding<Value<unsigned int>>(1u), O());
         root->add_subsection("empty", O(std::nullopt, "Empty"));
         root->update_tree_metadata(0, "");
         return root;
       },
       "[outer] \n    [inner] x: 1\n[Empty] ", "outer=(inner=(x=1)),Empty=()",
       R"({"outer":{"inner":{"x":1}},"empty":{}})", "outer.inner.x,", "1,"},
      {"value and section share a name",
       [] {
         auto root = std::make_shared<Section>();
         root->add_value("cpu", holding<Value<unsigned int>>(1u), O(std::nullopt, "CPU load"));
         root->add_subsection("cpu", O(std::nullopt, "Cores"))
             ->add_value("freq", holding<GigahertzValue<3>>(), O());
         root->update_tree_metadata(0, "");
         return root;
       },
       "CPU load: 1\n[Cores] freq: null", "CPU load=1,Cores=(freq=null)",
       R"({"cpu":1,"cpu":{"freq":null}})", "cpu,cpu.freq", "1,null"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto tree = c.build();
    EXPECT_EQ(tree->to_str(), c.text);
    EXPECT_EQ(tree->to_inline_str(), c.inline_text);
    EXPECT_EQ(tree->to_json(), c.json);
    EXPECT_EQ(tree->_to_csv(true), c.csv_header);
    EXPECT_EQ(tree->to_csv(), c.csv_data);
  }
}

// The CSV form, keys in full, is the golden files' of every profile.
TEST(Schema, TableForEachFormat) {
  const std::string text =
      "Key                Description\n"
      "-----              -----\n"
      "sequence      :    Incrementing output sequence number\n"
      "stats         :    Stats about the device\n"
      "    Load      :    Busy time share\n"
      "    CPU       :    \n"
      "        freq  :    \n"
      "        mode  :    \n";
  std::string json = text;  // keys where text shows labels
  json.replace(json.find("Load"), 4, "load").replace(json.find("CPU"), 3, "cpu");
  auto root = report_tree();
  EXPECT_EQ(root->get_description(OutputFormat::TEXT), text);
  EXPECT_EQ(root->get_description(OutputFormat::INLINE), text);
  EXPECT_EQ(root->get_description(OutputFormat::JSON), json);
}

// The generation comes from the last definition of ro.product.device, and only the four names
// count; the booleans follow from the generation.
TEST(DeviceGeneration, FromBuildProp) {
  using Zavra::OS::Generation;
  const struct {
    const char* build_prop;
    Generation generation;
    bool brantley, chipset2;
  } cases[] = {
      {"ro.product.device=fennick\n", Generation::kFennick, false, true},
      {"ro.product.device=maplet\r\n", Generation::kMaplet, false, true},
      {"ro.product.name=x\nro.product.device=dorrin", Generation::kDorrin, false, true},
      {"ro.product.device=fennick\nro.product.device=brantley\n", Generation::kBrantley, true,
       false},
      {"ro.product.device=brantley\nro.product.device=generic\n", Generation::kOther, false, false},
      {"ro.product.device.x=fennick\nxro.product.device=maplet\n", Generation::kOther, false,
       false},
      {"ro.product.device=Fennick\n", Generation::kOther, false, false},
      {"ro.product.device=dorrin \n", Generation::kOther, false, false},
      {"", Generation::kOther, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.build_prop);
    const Generation g =
        Zavra::OS::generationOf(Zavra::OS::findProperty(c.build_prop, "ro.product.device"));
    EXPECT_EQ(g, c.generation);
    EXPECT_EQ(g == Generation::kBrantley, c.brantley);
    EXPECT_EQ(detail::chipset2_from_queries(g == Generation::kFennick, g == Generation::kMaplet,
                                            g == Generation::kDorrin),
              c.chipset2);
  }
}

TEST(Split, DropsEmptyPieces) {
  EXPECT_EQ(utils::split(",a,,b,", ','), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(utils::split("", ','), std::vector<std::string>{});
}

}  // namespace
}  // namespace emberline
