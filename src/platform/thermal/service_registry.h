#pragma once

// The process-wide registry of thermal service instances that IThermal::getService consults. On
// a headset the service manager and the HAL process play this part; here tests drive it: they
// register a service of their own, replace it, or kill it as if its process had died.
//
// Unless a test has placed or killed a service, the default instance is a DefaultThermal over
// /sys/class/thermal, started by getService whenever none runs and the directory can be listed.
// It dies when its directory goes away (see default_thermal.h), and the next getService after the
// directory's return starts a new one.
//
// Clients always get a handle that goes through the transport: once its instance is killed, every
// call on it fails in the transport and linked death recipients are told, on the registry's own
// thread, as a binder thread would tell them.

#include <chrono>
#include <string>

#include "platform/thermal/thermal.h"

namespace android::hardware::thermal::V2_0::registry {

// Makes `service` the instance `name`, in place of any earlier one. Handles to an earlier one
// stay connected to it. From the first call on, the default service is never started by itself.
void register_service(sp<IThermal> service, const std::string& name = "default");

// The instance's process goes away: getService answers null, calls through existing handles fail,
// and each linked recipient's serviceDied runs on the registry's thread. Also ends the automatic
// start of the default service.
void kill_service(const std::string& name = "default");

// The instance's process restarts: as kill_service, but `service` takes its place at once, so
// that recipients reconnecting from serviceDied find it.
void replace_service(sp<IThermal> service, const std::string& name = "default");

// The default instance reads `root` and polls every `poll_period` from now on, and starts by
// itself again even after a test placed or killed a service.
void serve_default(std::string root, std::chrono::milliseconds poll_period);

// Blocks until every death notification issued so far has returned.
void await_notifications();

}  // namespace android::hardware::thermal::V2_0::registry
