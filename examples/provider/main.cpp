// A provider extension in one file: it shows the documents of another directory, its origin, brings
// their content in, carries changes back and gives the space back. What an item is called in the
// origin is its identifier, so a renamed document is another one; and nobody else is expected to
// change the origin at the same moment. The accounts of the docsource tool do better in both.

#include <docsource/placeholder.h>
#include <docsource/provider.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using docsource::Descriptor;
using docsource::Error;
using docsource::Placeholder;
using docsource::PlaceholderState;
using docsource::Result;

Error errorOf(const std::error_code& problem, const fs::path& path) {
  return Error::file(problem.value(), path);
}

Result<Descriptor> open(const fs::path& path, int flags) {
  Descriptor file(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return Error::file(errno, path);
  return file;
}

/// A document of the origin, and where it is shown.
struct Document {
  fs::path shown;
  fs::path original;

  /// Nothing is opened to look at it, so nobody is in anybody's way.
  Result<Descriptor> look() const { return open(shown, O_PATH); }
  Result<Placeholder::Shape> shape() const {
    const auto file = open(original, O_PATH);
    return file ? Placeholder::shapeOf(file->get()) : file.error();
  }
};

class ExampleProvider final : public docsource::Provider {
 protected:
  /// Comes at each start of the broker. What was made before may have to fit another machine.
  Result<void> performInitialSetup() override {
    if (!documentStorage() || !origin()) {
      return Error("org.example.provider", 1, "The bundle names no origin or no document group.");
    }
    std::error_code problem;
    fs::create_directories(*documentStorage(), problem);
    for (fs::recursive_directory_iterator entry(*origin(), problem), end; !problem && entry != end;
         entry.increment(problem)) {
      const auto path = *documentStorage() / entry->path().lexically_relative(*origin());
      if (entry->is_directory(problem)) fs::create_directories(path, problem);
      if (!entry->is_regular_file(problem) || entry->is_symlink(problem)) continue;
      if (auto made = providePlaceholder(path); !made) return made;
      const auto file = open(path, O_PATH);
      if (!file) return file.error();
      if (auto adapted = Placeholder(file->get()).adapt(); !adapted) return adapted;
      if (auto carried = carryWhatNobodyTold(path, file->get()); !carried) return carried;
    }
    if (problem) return errorOf(problem, *origin());
    return {};
  }

  Result<void> providePlaceholder(const std::string& path) override {
    const auto document = documentAt(path);
    if (!document) return document.error();
    std::error_code problem;
    if (fs::exists(fs::symlink_status(document->shown, problem))) return {};
    const auto shape = document->shape();
    return shape ? Placeholder::make(document->shown, *shape) : Result<void>(shape.error());
  }

  Result<void> startProviding(const std::string& path) override {
    const auto document = documentAt(path);
    if (!document) return document.error();
    const auto file = document->look();
    if (!file) return file.error();
    if (Placeholder(file->get()).state() == PlaceholderState::present) return {};
    const auto original = open(document->original, O_RDONLY);
    const auto shape = document->shape();
    if (!original || !shape) return original ? shape.error() : original.error();
    auto writer = Placeholder(file->get()).fill();
    if (!writer) return writer.error();
    if (auto copied = writer->copy(original->get()); !copied) return copied;
    return writer->finish(*shape);
  }

  /// Beside the original, whole and on the disk, before it takes the place of the original.
  Result<void> itemChanged(const std::string& path) override {
    const auto document = documentAt(path);
    if (!document) return document.error();
    const auto file = document->look();
    if (!file) return file.error();
    const auto shape = Placeholder::shapeOf(file->get());
    if (!shape) return shape.error();
    if (Placeholder(file->get()).state() != PlaceholderState::present) return {};
    const auto side = document->original.string() + ".new";
    std::error_code problem;
    fs::create_directories(document->original.parent_path(), problem);
    constexpr auto overwriting = fs::copy_options::overwrite_existing;
    fs::copy_file(document->shown, side, overwriting, problem);
    // Who reads in the moment in which platformd is ended is told to try again.
    if (problem == std::errc::resource_unavailable_try_again) {
      fs::copy_file(document->shown, side, overwriting, problem);
    }
    if (problem) return errorOf(problem, side);
    const auto copy = open(side, O_RDWR);
    if (!copy) return copy.error();
    struct stat status {};
    ::fstat(file->get(), &status);
    const timespec times[] = {status.st_atim, status.st_mtim};
    if (::futimens(copy->get(), times) != 0 || ::fsync(copy->get()) != 0) {
      return Error::file(errno, side);
    }
    fs::rename(side, document->original, problem);
    if (problem) return errorOf(problem, document->original);
    return {};
  }

  /// Only where the origin has the same, and nobody uses it here.
  Result<void> stopProviding(const std::string& path) override {
    const auto document = documentAt(path);
    if (!document) return document.error();
    const auto file = document->look();
    const auto shape = document->shape();
    if (!file || !shape) return file ? shape.error() : file.error();
    const auto evicted = Placeholder(file->get()).evict(*shape);
    return evicted ? Result<void>() : evicted.error();
  }

  Result<std::string> identifierForItem(const std::string& path) override {
    const auto document = documentAt(path);
    if (!document) return document.error();
    const auto file = document->look();
    if (!file) return file.error();
    return document->original.lexically_relative(*origin()).string();
  }

  Result<std::string> pathForItem(const std::string& identifier) override {
    const auto document = documentAt(documentStorage().value_or("") + "/" + identifier);
    const bool isThere = document && document->look();
    return isThere ? Result<std::string>(document->shown) : Error::noSuchItem(identifier);
  }

 private:
  /// Nobody is told of what was written while platformd or docsourced did not run. What is in
  /// agreement has the same time on both sides.
  Result<void> carryWhatNobodyTold(const fs::path& path, int file) {
    const auto document = documentAt(path);
    if (!document) return document.error();
    if (Placeholder(file).state() != PlaceholderState::present) return {};
    const auto here = Placeholder::shapeOf(file), there = document->shape();
    if (!here || !there) return here ? there.error() : here.error();
    return here->modified > there->modified ? itemChanged(path) : Result<void>();
  }

  std::optional<std::string> origin() const { return infoString("ExampleOrigin"); }

  /// An error for a path that is not below the storage.
  Result<Document> documentAt(const std::string& path) const {
    const auto normal = fs::path(path).lexically_normal();
    const auto relative = normal.lexically_relative(documentStorage().value_or("/"));
    if (!documentStorage() || !origin() || relative.empty() || *relative.begin() == ".." ||
        relative == ".") {
      return Error::file(ENOENT, path);
    }
    return Document{normal, *origin() / relative};
  }
};

}  // namespace

int main() { return ExampleProvider().run(); }
