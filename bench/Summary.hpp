#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vantor::bench {

/// The machine-readable lines that `make bench` ends with, in order.
using Summary = std::vector<std::pair<std::string, double>>;

/// Push/reply round trips over loopback against a server of the benchmark's
/// own: a bare Beast client against this library's Socket and Channel.
void runEndToEnd(Summary& summary);

/// How routing, replies, presence diffs and memory scale with size.
void runScaling(Summary& summary);

/// Bytes on the wire for a presence-heavy session, with and without
/// compression; printed, not summarised.
void runWireSize();

}  // namespace vantor::bench
