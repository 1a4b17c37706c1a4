#pragma once
#include <QString>
#include <boost/signals2/signal.hpp>

namespace OrvAlgo {

// int(percent, message, context); the caller sees the last slot's value, or nothing without slots.
using ProgressSignal = boost::signals2::signal<int(double, const QString&, void*),
                                               boost::signals2::optional_last_value<int>>;

} // namespace OrvAlgo
