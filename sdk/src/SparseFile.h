#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string_view>

#include "docsource/placeholder.h"
#include "platform/queue/WorkQueue.h"

/// What is done to the content of files that are placeholders or become documents. The functions
/// set errno when they fail. Any thread, one at a time for each file.
namespace docsource::sparse {

Placeholder::Time timeOf(const timespec& time);

bool setTimes(int file, const Placeholder::Shape& shape);
bool setSize(int file, std::uint64_t size);

/// All of it.
bool writeAt(int file, off_t offset, std::string_view bytes);

/// The size and times of the shape, and no blocks, or none but the first, which holds zeros. The
/// file is never smaller than both sizes meanwhile.
bool makeSparse(int file, const Placeholder::Shape& shape, bool hasFirstBlock);

/// The whole of `source` from its beginning to the beginning of `file`: how much that was, or -1.
off_t copy(int source, int file);

}  // namespace docsource::sparse
