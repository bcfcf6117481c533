// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <string>

namespace slotctl {

// Name of the queue object of slot `name` ("queue_<name>").
std::string QueueObject(const std::string& name);

// Path of the POSIX shared-memory object `object`.
std::string ShmPath(const std::string& object);

// Whether the shared-memory object exists (any kind of file).
bool ShmExists(const std::string& object);

// "2026-11-22T10:00:01.123456Z", or "never" for not_a_date_time.
std::string FormatTime(const boost::posix_time::ptime& time);

// "12s", "5m", "3h", "2d": an age as ls's AGE column shows it; "-" when negative (unknown).
std::string AgeText(double seconds);

}  // namespace slotctl
