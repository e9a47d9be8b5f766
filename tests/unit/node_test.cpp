// Reading and writing kernel nodes: the vendor's whole-file helpers, the stream the plugins hold
// nodes open with, and nodes that never answer.

#include "platform/os/node.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/os/read.h"
#include "platform/zavra_os/zavra_os.h"
#include "support/process.h"

namespace {

using emberline::os::NodeStream;
using test_support::read_file;
using test_support::write_file;
using Zavra::OS::File::ReadText;
using Zavra::OS::File::WriteText;

class Node : public testing::Test {
 protected:
  Node() { std::filesystem::create_directories(dir); }
  ~Node() override { std::filesystem::remove_all(dir); }
  const std::string dir = testing::TempDir() + "node-" + std::to_string(getpid());
  const std::string path = dir + "/node";
};

// The vendor's ReadText gives what a whole read gives, and nothing for any other.
TEST_F(Node, ReadNodeTellsWholeFromCutAndKeepsItsBuffer) {
  using emberline::os::NodeRead;
  using emberline::os::read_node;
  const std::string big(10000, 'x');
  struct Case {
    std::string content;
    std::size_t limit;
    NodeRead result;
    std::string text;
  } cases[] = {
      {"50\n", 3, NodeRead::kWhole, "50\n"},
      {"50\n", 2, NodeRead::kOverLimit, "50"},
      {"", 4, NodeRead::kWhole, ""},
      {"", 0, NodeRead::kWhole, ""},
      {"7", 0, NodeRead::kOverLimit, ""},
      {big, big.size(), NodeRead::kWhole, big},
      {big, 4097, NodeRead::kOverLimit, big.substr(0, 4097)},
  };
  std::string text = "left from before";
  for (const Case& c : cases) {
    write_file(path, c.content);
    EXPECT_EQ(read_node(path, text, c.limit), c.result) << c.content.size() << " " << c.limit;
    EXPECT_EQ(text, c.text);
    EXPECT_EQ(ReadText(path, c.limit),
              c.result == NodeRead::kWhole ? std::optional(c.text) : std::nullopt);
  }
  const char* kept = text.data();
  write_file(path, "12 34\n");
  ASSERT_EQ(read_node(path, text, 100), NodeRead::kWhole);
  EXPECT_EQ(text.data(), kept) << "a smaller node reuses the grown buffer";
  EXPECT_EQ(read_node(dir + "/absent", text, 100), NodeRead::kUnopened);
  EXPECT_EQ(text, "");
  EXPECT_EQ(ReadText(dir + "/absent", 100), std::nullopt);
}

TEST(Lines, EveryLineWithoutItsEndAndAStopOnFalse) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},         {"a", "a|"},         {"a\n", "a|"},
      {"a\nb", "a|b|"}, {"\n\nb\n", "||b|"}, {"a\r\n", "a\r|"}};
  for (const auto& [text, joined] : cases) {
    std::string seen;
    emberline::os::for_each_line(text,
                                 [&](std::string_view line) { seen += std::string(line) + "|"; });
    EXPECT_EQ(seen, joined) << text;
  }
  int calls = 0;
  emberline::os::for_each_line("a\nstop\nc\n", [&](std::string_view line) {
    ++calls;
    return line != "stop";
  });
  EXPECT_EQ(calls, 2);
}

TEST_F(Node, WriteTextReplacesOrAppendsButNeverCreates) {
  write_file(path, "100\n");
  EXPECT_EQ(WriteText(path, "7", false), 0);
  EXPECT_EQ(read_file(path), "7");
  EXPECT_EQ(WriteText(path, "8", true), 0);
  EXPECT_EQ(read_file(path), "78");
  EXPECT_EQ(WriteText(dir + "/absent", "1", false), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(dir + "/absent"));
  EXPECT_EQ(WriteText(dir, "1", false), EISDIR);
}

// What a plugin gets from a node through NodeStream is what std::ifstream would have given it.
TEST_F(Node, NodeStreamReadsAsAnIfstream) {
  std::string long_text;  // lines across the stream's buffer
  for (int i = 0; i < 900; ++i) long_text += std::to_string(i * 7919 % 100003) + " " + "x\n";
  for (const std::string& text : {std::string(), std::string("2400\n"), std::string("12 34"),
                                  std::string("fast\n"), long_text}) {
    write_file(path, text);
    NodeStream node(path);
    std::ifstream file(path);
    ASSERT_TRUE(node.is_open());
    unsigned long a = 1, b = 1;
    EXPECT_EQ(static_cast<bool>(node >> a), static_cast<bool>(file >> b)) << text.substr(0, 9);
    EXPECT_EQ(a, b);
    for (std::string x, y; std::getline(file, y);) {
      ASSERT_TRUE(std::getline(node, x));
      ASSERT_EQ(x, y);
    }
    EXPECT_FALSE(node >> a);
  }

  // Rewritten in place, as the kernel formats a node afresh: back at 0, the new value shows.
  write_file(path, "2400\n");
  NodeStream node(path);
  unsigned long rpm = 0;
  ASSERT_TRUE(node >> rpm);
  std::ofstream(path, std::ios::in) << "37";  // same file, no truncation: "3700\n"
  node.clear();
  node.seekg(0);
  ASSERT_TRUE(node >> rpm);
  EXPECT_EQ(rpm, 3700u);

  // Closing and opening again, and opening what is not there.
  node.close();
  EXPECT_FALSE(node.is_open());
  node.open(dir + "/absent");
  EXPECT_TRUE(node.fail());
  node.open(path);
  EXPECT_TRUE(node.is_open());
  EXPECT_TRUE(node.good()) << "a successful open clears the state";
  node.close();
  node.close();
  EXPECT_TRUE(node.fail()) << "closing what is closed fails";
}

// Kept open for the run, a node must show what it holds now after each rewind, however much of it
// the last read took: up to a line end, a number, or everything.
TEST_F(Node, RewoundNodesShowTheirNewText) {
  using Reader = std::string (*)(std::FILE*);
  const Reader readers[] = {
      [](std::FILE* f) {
        char line[64] = {};
        return std::string(std::fgets(line, sizeof line, f) ? line : "failed");
      },
      [](std::FILE* f) {
        long number = 0;
        return std::fscanf(f, "%ld", &number) == 1 ? std::to_string(number) : "failed";
      },
      [](std::FILE* f) {
        char all[64];
        return std::string(all, std::fread(all, 1, sizeof all, f));
      },
  };
  write_file(path, "1500000\n");
  std::FILE* file = emberline::os::open_node_file(path);
  ASSERT_NE(file, nullptr);
  for (std::size_t r = 0; r < std::size(readers); ++r) {
    for (const std::string text : {"3000000\n", "500000\n", "42", "12500000\n", "7\n"}) {
      write_file(path, text);
      emberline::os::rewind_node(file);
      EXPECT_EQ(readers[r](file), r == 1 ? std::to_string(std::stol(text)) : text) << r;
    }
  }
  std::fclose(file);
}

// A FIFO in a node's place, with a writer that never writes: every way of reading a node gives
// up at once instead of waiting for good (a hang here ends the test by the alarm).
TEST_F(Node, NodesThatNeverAnswerReadAsFailedAtOnce) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  alarm(20);
  // Opened before any reader, so that a reader's open never waits for a writer.
  const int silent_writer = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(silent_writer, 0);

  EXPECT_EQ(ReadText(path, 100), std::nullopt);
  std::string text;
  EXPECT_EQ(emberline::os::read_node(path, text, 100), emberline::os::NodeRead::kFailed);
  NodeStream stream(path);
  ASSERT_TRUE(stream.is_open());
  long value = 0;
  EXPECT_FALSE(stream >> value);
  std::FILE* file = emberline::os::open_node_file(path);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(std::fscanf(file, "%ld", &value), EOF);
  std::fclose(file);
  const int fd = emberline::os::open_node(path);
  char byte;
  EXPECT_EQ(::read(fd, &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
  ::close(fd);

  // Without any writer, opening for reading does not wait either, and the node reads empty;
  // opening for writing without a reader is refused.
  stream.close();
  ::close(silent_writer);
  EXPECT_EQ(ReadText(path, 100), "");
  EXPECT_EQ(WriteText(path, "1", false), ENXIO);
  alarm(0);
}

}  // namespace
