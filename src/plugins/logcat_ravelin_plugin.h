#pragma once

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "plugin.h"

namespace emberline {

// Frame statistics of the headset's runtime, averaged per output over its log lines.
class LogcatRavelinPlugin : public Plugin {
 public:
  // One report field: picks its number out of comma-separated pieces of log lines.
  class IRavelinFieldReader {
   public:
    virtual void parse(std::string token) = 0;
    virtual void reset() = 0;
    virtual void finalize() = 0;
    virtual ~IRavelinFieldReader() = default;
  };

  template <typename T>
  class RavelinFieldReader : public IRavelinFieldReader {
   public:
    explicit RavelinFieldReader(std::function<float(std::string)> parser)
        : parser(std::move(parser)) {}

    void parse(std::string token) override;
    void reset() override {
      sum = 0.0f;
      count = 0;
    }
    void finalize() override;

    std::function<float(std::string)> parser;
    float sum = 0.0f;
    std::int32_t count = 0;
    std::shared_ptr<T> value = std::make_shared<T>();
  };

  // What a parser gives for a piece that does not hold its field: the largest finite float.
  static const float kNoMatch;

  LogcatRavelinPlugin();
  ~LogcatRavelinPlugin() override;

  void add_field(const std::string& key, const std::string& description,
                 std::function<float(std::string)> parser);

  bool init() override;
  bool on_output() override;

 protected:
  // Where the entries come from; tests stand a memory stream in for `logcat`.
  virtual FILE* open_log(const std::string& command) { return ::popen(command.c_str(), "r"); }
  virtual void close_log(FILE* stream) { ::pclose(stream); }

 private:
  void read_window(FILE* stream);

  FILE* pipe = nullptr;
  std::string command;
  std::time_t start_time;
  std::vector<std::shared_ptr<IRavelinFieldReader>> readers;
};

}  // namespace emberline
