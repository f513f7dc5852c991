// One long-lived thread that describes movies, one after another, for
// every probe in the process. A request stream reads thousands of movies;
// starting and joining a thread for each would cost more than some of the
// reads it overlaps.
#pragma once

#include <functional>
#include <future>
#include <optional>

#include "report/movie_description.h"

namespace DescriberThread {

using Result = std::optional<MovieDescription>;

// Queues the work behind what is already queued and returns its answer to
// come. The thread starts with the first call and lives as long as the
// process.
std::future<Result> run(std::function<Result()> work);

}  // namespace DescriberThread
