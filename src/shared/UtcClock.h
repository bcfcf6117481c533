// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <ctime>

namespace shared {

// The current UTC time with microsecond resolution: the value of
// boost::posix_time::microsec_clock::universal_time(), built from clock_gettime(CLOCK_REALTIME)
// by arithmetic. microsec_clock goes through gmtime_r, which takes glibc's time-zone lock and
// costs about twice as much; every slot write and every reader wait asks for the time.
inline boost::posix_time::ptime UtcNow() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return epoch + boost::posix_time::seconds(now.tv_sec) +
           boost::posix_time::microseconds(now.tv_nsec / 1000);
}

}  // namespace shared
