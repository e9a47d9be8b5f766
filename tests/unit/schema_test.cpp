#include <gtest/gtest.h>

#include "plugin.h"
#include "report_tree.h"

namespace emberline {
namespace {

TEST(Schema, TableForEachFormat) {
  const std::string text =
      "Key                   Description\n"
      "-----                 -----\n"
      "sequence         :    Incrementing output sequence number\n"
      "timestamp        :    Time since trace start (measured in seconds)\n"
      "Power (BATTERY)  :    Device BATTERY power data\n"
      "    raw          :    Instantaneous power (measured in Watts)\n"
      "    voltage      :    Instantaneous voltage (measured in Volts)\n"
      "stats            :    \n"
      "    Load         :    CPU load\n"
      "    CPU          :    \n"
      "        freq     :    \n"
      "        mode     :    \n";
  const std::string json =
      "Key                Description\n"
      "-----              -----\n"
      "sequence      :    Incrementing output sequence number\n"
      "timestamp     :    Time since trace start (measured in seconds)\n"
      "power         :    Device BATTERY power data\n"
      "    raw       :    Instantaneous power (measured in Watts)\n"
      "    voltage   :    Instantaneous voltage (measured in Volts)\n"
      "stats         :    \n"
      "    load      :    CPU load\n"
      "    cpu       :    \n"
      "        freq  :    \n"
      "        mode  :    \n";
  const std::string csv =
      "Key                  Description\n"
      "-----                -----\n"
      "sequence        :    Incrementing output sequence number\n"
      "timestamp       :    Time since trace start (measured in seconds)\n"
      "power.raw       :    Instantaneous power (measured in Watts)\n"
      "power.voltage   :    Instantaneous voltage (measured in Volts)\n"
      "stats.load      :    CPU load\n"
      "stats.cpu.freq  :    \n"
      "stats.cpu.mode  :    \n";
  auto root = report_tree();
  EXPECT_EQ(root->get_description(OutputFormat::TEXT), text);
  EXPECT_EQ(root->get_description(OutputFormat::INLINE), text);
  EXPECT_EQ(root->get_description(OutputFormat::JSON), json);
  EXPECT_EQ(root->get_description(OutputFormat::CSV), csv);
}

TEST(Schema, EmptyTreeHasOnlyTheHeadingRows) {
  for (auto format :
       {OutputFormat::INLINE, OutputFormat::TEXT, OutputFormat::JSON, OutputFormat::CSV}) {
    EXPECT_EQ(Section().get_description(format), "Key      Description\n-----    -----\n");
  }
}

TEST(Schema, CsvKeyColumnIsTheCsvHeader) {
  auto root = report_tree();
  std::istringstream table(root->get_description(OutputFormat::CSV));
  std::string line, keys;
  std::getline(table, line);
  std::getline(table, line);
  while (std::getline(table, line)) {
    keys += (keys.empty() ? "" : ",") + line.substr(0, line.find(' '));
  }
  EXPECT_EQ(keys, root->_to_csv(true));
}

TEST(Schema, FormatTablePadsAllButLastColumn) {
  const std::vector<std::array<std::string, 3>> rows{{"a", "b", "c"}, {"long", "", "x y"}};
  EXPECT_EQ(utils::format_table<3>(rows, 1, 2), "  a    b c\n  long   x y\n");
  EXPECT_EQ(utils::format_table<3>({}, 2, 0), "");
}

}  // namespace
}  // namespace emberline
