#pragma once

#include <memory>

#include "plugin.h"

namespace emberline {

// Counts its own calls: the smallest whole plugin, and the pattern new plugins follow.
class ExamplePlugin : public Plugin {
 public:
  ExamplePlugin();
  bool on_sample() override;
  bool on_output() override;

 private:
  std::shared_ptr<Value<unsigned int>> num_samples = std::make_shared<Value<unsigned int>>();
  std::shared_ptr<Value<unsigned int>> num_outputs = std::make_shared<Value<unsigned int>>();
};

}  // namespace emberline
