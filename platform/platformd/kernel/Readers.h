#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/Charges.h"
#include "platform/platformd/kernel/Claims.h"
#include "platform/platformd/kernel/EventChannel.h"
#include "platform/platformd/kernel/GuardedTrees.h"
#include "platform/platformd/kernel/Programs.h"
#include "platform/platformd/kernel/WaitingProcesses.h"
#include "platform/queue/Clock.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// Programs that wait to access files: decides about each access, has placeholders provided, and
/// answers.
///
/// | The file | The program | What happens |
/// | --- | --- | --- |
/// | is content | any | It goes on, and is not asked about again until the file changes. |
/// | is a placeholder | works for its doc source | It goes on. |
/// | | never has content brought in (Programs) | It gets EPERM when it accesses content. |
/// | | opens it, where accesses are reported too | It goes on, unless it needs the whole file. |
/// | | reads bytes that are there (partsThere, ReadCall) | It goes on until its next read. |
/// | | anything else | It waits, and its user is charged. |
///
/// The registry is asked once for each file, however many wait; all get its answer. When nobody can
/// be asked, because there is no doc source, or it was lost while it provided, a file waits for one
/// to come, up to `patience`, and then its programs get EAGAIN. One descriptor is kept of each
/// file. While a file is being provided, its doc source is told which bytes are waited for. A
/// program goes on when its bytes are there, unless it needs the whole file at once (Programs).
///
/// No program changes a file that is waited for or filled without asking, but for one that empties
/// it by opening it (open(2), O_TRUNC), of which the kernel only tells. Its writing waits, and the
/// doc source, which is asked unless it was already, may write nothing more. When it has answered,
/// or after five seconds, whatever it has written by then is taken away, and everybody goes on.
///
/// Everything runs on the coordinator's queue; callbacks come back to it through `onQueue`.
class Readers {
 public:
  static constexpr std::chrono::seconds patience{30};
  using OnQueue = std::function<void(WorkQueue::Task)>;
  using Slowly = std::function<void(uid_t, WorkQueue::Task)>;

  /// A program that waits.
  struct Access {
    int number = 0;  // the name that it has in the holder
    pid_t process = 0;
    std::uint64_t mask = 0;
    pid_t thread = 0;
    /// The bytes to which it wants access; absent when it needs the whole file.
    std::optional<ByteRange> range;
    bool isReader = false;  // and gets at these bytes alone
    bool isTold = false;    // that it waits for them
  };

  /// What is handed over must outlive this, except for the registry. Answers go to the holder, and
  /// to the kernel when the holder has ended. `drain` takes the changes that the kernel has
  /// reported so far. `slowly` runs what takes long elsewhere, one thing of a user after the other,
  /// and keeps all of this alive meanwhile.
  Readers(std::shared_ptr<DocSourceRegistry> registry, const EventChannel& holder,
          const AccessGroup& group, GuardedTrees& trees, Claims& claims, Programs& programs,
          std::function<void()> drain, OnQueue onQueue, Slowly slowly);

  void decide(const Access& access, FileDescriptor file);
  /// Asks again for the files for which nobody could be asked; called when a doc source has come.
  void askAgain();
  /// A placeholder has come to a place in a tree.
  void arrived(const FileIdentity& identity);
  /// A placeholder that is waited for may have more of its content than before.
  void progressed(const FileIdentity& identity);
  /// A program that does not work for the doc source has changed the file's content. If it has
  /// emptied a placeholder by that, the file is a document from now on: nobody gets at it before
  /// its doc source, if that is filling it, has stopped.
  void wasModified(pid_t program, const FileDescriptor& file, const struct stat& status);
  /// Doc sources went, and what they were asked is lost: programs that wait now wait for the next.
  void lookWhoIsAway();

 private:
  struct Document {
    FileDescriptor file;
    std::vector<Access> accesses;
    pid_t first = 0;  // program that wanted it
    uid_t user = 0;   // whom it is charged to
    std::optional<GuardedTrees::Place> place;
    bool isSearched = false;
    bool isAsked = false;
    bool isEmptied = false;           // by a program, whose content it is from then on
    std::uint64_t turn = 0;           // of the asking
    std::optional<DocSource> source;  // that was asked
    timespec changed{};               // when it was asked for, the time of its last change
    std::uint64_t patience = 0;       // counts the waits for somebody to ask
    Clock::TimerID deadline = 0;
  };
  using Documents = std::map<FileIdentity, Document>;

  void answer(const Access& access, int errnum) const;
  void wait(const FileIdentity& identity, const Access& access, uid_t user, FileDescriptor file,
            std::optional<GuardedTrees::Place> place);
  void ask(const FileIdentity& identity);
  enum class Part { there, absent, unknown };
  static Part partOf(Access& access, const FileIdentity& identity,
                     const std::optional<ByteRanges>& parts);
  void searchFor(const FileIdentity& identity, const struct stat& status);
  void await(const FileIdentity& identity);
  void provided(const FileIdentity& identity, std::uint64_t turn,
                const std::optional<Error>& error);
  void noteFilling(const FileIdentity& identity);
  bool isFilled(const FileIdentity& identity) const;
  void leaveEmpty(const FileIdentity& identity);
  void finish(const FileIdentity& identity, int errnum);
  void letGo(const Access& access, int errnum);
  /// Lets those programs go for which the file is good as it is. Returns whether any still waits.
  bool isStillAwaited(Document& document);
  void processEnded(pid_t process);

  const std::shared_ptr<DocSourceRegistry> registry_;
  const EventChannel& holder_;
  const AccessGroup& group_;
  GuardedTrees& trees_;
  Claims& claims_;
  Programs& programs_;
  const std::function<void()> drain_;
  const OnQueue onQueue_;
  const Slowly slowly_;
  Charges charges_;
  WaitingProcesses processes_;
  Documents documents_;
  /// The placeholders to which a doc source has written unasked, and when it last did.
  std::map<FileIdentity, std::chrono::steady_clock::time_point> filled_;
  std::optional<FileIdentity> lastEmptied_;
  std::uint64_t lastTurn_ = 0;
};

}  // namespace qx::kernel
