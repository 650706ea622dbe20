#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/EngineLimits.h"
#include "engine/SignatureState.h"
#include "worker/Channel.h"
#include "worker/Confinement.h"
#include "worker/Messages.h"
#include "worker/TempFolders.h"

namespace agent {

/// The agent's end of a worker template. The thread that reads the template's report settles the link for all
/// threads that wait for the report.
struct TemplateLink {
  Channel channel;
  platform::Descriptor
      settled;  ///< an eventfd: stays readable once the report was read or the template ended
  void settle() const;
};

/// The agent's end of the scanning processes. The spawner is a program of its own. The spawner executes a
/// worker template, the same program anew, which confines itself, loads the signatures once and forks the
/// workers.
/// A template or a spawner that dies is replaced. All processes end with the agent, however the agent ends.
/// This class has no thread: each call first reads the reports that have arrived. Any thread that has the
/// agent's own rights.
class Spawner {
 public:
  struct Config {
    std::string shippedSignatures;  ///< folder of our own signatures; must be there
    std::string systemSignatures;   ///< folder of the system's database; may be missing or empty
    EngineLimits limits{};
    std::string signatureCopies{};  ///< folder with the copy of the last good load; may be missing
    std::string tempFolder{};       ///< where large unpacked content goes; empty: $TMPDIR, else /tmp
    /// By the clock; a worker that takes longer is killed. Zero: what the file's budget says.
    std::chrono::milliseconds fileTimeout{0};
    /// Of spawner and worker template. Empty: both are forks of this process, the template is not confined,
    /// and a dead spawner is not replaced; for tests. The constructor then needs a process with one thread.
    std::string program{};
    ScannerUser user{};                      ///< of template and workers, when the agent is root
    std::uint64_t tempBytes = 2ULL << 30;    ///< of all unpacked content at one time
    std::uint64_t memoryBytes = 512U << 20;  ///< of a worker, above the signatures and the file's size
    Unconfined unconfined = Unconfined::kWithoutNamespaces;
    /// Runs in the worker before each file, with its name. For tests that make a worker die or hang; without
    /// effect on a program.
    std::function<void(const std::string&)> beforeFile{};
  };
  /// Returns at once; signatures load meanwhile. Throws std::runtime_error when the fork of a test fails.
  explicit Spawner(Config config);
  ~Spawner();  ///< ends the spawner and its workers; destroy all pools before
  Spawner(const Spawner&) = delete;
  Spawner& operator=(const Spawner&) = delete;

  const Config& config() const { return config_; }
  /// The state now, without waiting.
  SignatureState signatureState();
  /// Of the template that made the last report.
  ConfinementState confinement();
  /// How many spawners died and were replaced, so far.
  unsigned replacedSpawners();
  /// Whether workers of that generation come from the newest template, and this template lives. Otherwise a
  /// worker can have died because its template did.
  bool isCurrent(unsigned generation);
  /// The refused call of a template, since the last question; empty: none.
  std::string takeBreach();
  /// Waits up to the limit for the current load.
  SignatureState waitLoaded(std::chrono::milliseconds limit);
  /// Whether that version of the signatures is in use.
  bool uses(const std::string& signatureVersion);
  /// Loads the signatures again in a fresh template, and waits for the load. Busy workers finish their file
  /// with the old signatures. When the new ones do not load, or a file of the system's database that is in
  /// use does not, the old ones stay, and the state says so.
  platform::Expected<void> reload();
  /// For the end of the agent: the current reload and all later ones fail at once.
  void abandonReload();

  /// The parent folders of the content that workers unpack, while the spawner lives. Scans leave these
  /// folders out.
  std::vector<std::string> temporaryFolders() const;

  struct Forked {
    Channel channel;          ///< brings the worker's hello, or ends; empty while signatures load
    unsigned generation = 0;  ///< of the worker's template
    /// Set while signatures load: try again once one of its descriptors is readable.
    std::shared_ptr<const TemplateLink> loading;
  };
  /// Asks for a fresh worker. Never blocks.
  platform::Expected<Forked> forkWorker();
  /// Changes with each reload and each new template.
  unsigned generation();

 private:
  using Clock = std::chrono::steady_clock;
  using Template = std::shared_ptr<const TemplateLink>;  // shared with the threads that wait for its report

  void forkSpawner();
  platform::Expected<void> startSpawner();
  void endSpawner();
  platform::Expected<void> askForTemplate(int channel);
  platform::Expected<Template> startTemplate(bool copyForMissing = true);
  void restartTemplate();
  void readReports();
  TemplateStart startMessage(bool copyForMissing) const;
  tl::unexpected<std::string> keepOld(const std::string& reason);
  static platform::Expected<StateReport> awaitReport(const Template& fresh);

  const Config config_;
  TempFolders folders_;
  pid_t pid_ = -1;
  Channel spawner_;
  std::mutex reloadMutex_;  // held for a whole reload, before mutex_
  std::mutex mutex_;        // guards the members below
  Template template_;
  Template reloading_;  // of the current reload
  bool abandoned_ = false;
  SignatureState state_;
  ConfinementState confinement_;
  std::string breach_;
  unsigned generation_ = 0;
  int failures_ = 0;       // templates in a row that ended during their load
  unsigned spawners_ = 0;  // started so far
  int fruitless_ = 0;      // spawners started since the last report of a template
};

}  // namespace agent
