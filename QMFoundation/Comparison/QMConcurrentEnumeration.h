// Concurrent enumeration: a range of indexes split into chunks that the
// calling thread and a process-wide pool of worker threads work off together.
//
//   std::vector<char> hit(array.size());
//   concurrentlyEnumerate(array.size(), grain, concurrency, [&](std::size_t begin, std::size_t end) {
//       for (auto index = begin; index < end; ++index) hit[index] = test(array[index]);
//   });
//
// Returns once every chunk has run. The caller always takes part, so an
// enumeration inside an enumeration cannot starve for workers. Chunks run in
// no fixed order and may run at the same time: the body must be safe to call
// from several threads, and results written per index stay deterministic.
// The first exception a chunk throws stops the chunks not yet started and is
// rethrown to the caller.
#pragma once

#include <cstddef>
#include <functional>

// The number of processors, at least 1: the default concurrency.
std::size_t processorCount();

// `grain` is the smallest chunk worth handing to another thread; below two
// chunks, or with a concurrency of 1, everything runs on the calling thread.
void concurrentlyEnumerate(std::size_t count, std::size_t grain, std::size_t concurrency,
                           const std::function<void(std::size_t begin, std::size_t end)>& body);

// The smallest index in [0, count) that satisfies `matches`, or `count` when
// none does. Chunks beyond a match already found are skipped.
std::size_t concurrentlyFindFirst(std::size_t count, std::size_t grain, std::size_t concurrency,
                                  const std::function<bool(std::size_t index)>& matches);
