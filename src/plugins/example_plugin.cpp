#include "plugins/example_plugin.h"

namespace emberline {

ExamplePlugin::ExamplePlugin() {
  add_value("num_samples", num_samples, FieldOptions("The number of times sampling occurred"),
            false);
  add_value("num_outputs", num_outputs, FieldOptions("The number of times output occurred"), false);
}

bool ExamplePlugin::on_sample() {
  num_samples->is_null = false;
  ++num_samples->value;
  return true;
}

bool ExamplePlugin::on_output() {
  num_outputs->is_null = false;
  ++num_outputs->value;
  return true;
}

}  // namespace emberline
