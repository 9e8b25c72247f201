#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string_view>

#include "docsource/placeholder.h"
#include "platform/queue/WorkQueue.h"

/// What is done to the content of files that are placeholders or become documents. The functions
/// set errno when they fail. Any thread may call them, one at a time for each file.
namespace docsource::sparse {

Placeholder::Time timeOf(const timespec& time);

bool setTimes(int file, const Placeholder::Shape& shape);
bool setSize(int file, std::uint64_t size);

/// Writes all of it.
bool writeAt(int file, off_t offset, std::string_view bytes);

/// Gives the file the size and times of the shape and no blocks, or only the first, which holds
/// zeros. Meanwhile the file is never smaller than the smaller of both sizes.
bool makeSparse(int file, const Placeholder::Shape& shape, bool hasFirstBlock);

/// Copies the whole of `source` from its beginning to the beginning of `file`. Returns how much
/// that was, or -1.
off_t copy(int source, int file);

}  // namespace docsource::sparse
