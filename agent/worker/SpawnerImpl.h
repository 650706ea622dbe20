#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "worker/Channel.h"
#include "worker/TempFolders.h"
#include "worker/WorkerPool.h"

namespace agent {

/// The agent's end of a template. Whoever reads its report marks it settled, which stays so: several may wait
/// for the one report.
struct TemplateLink {
  Channel channel;
  platform::Descriptor
      settled;  ///< an eventfd: readable once the report has been read, or the template is gone
  void settle() const;
};

/// The agent's side of the spawner. Has no thread: whoever asks reads what has come in.
class Spawner::Impl {
 public:
  explicit Impl(Config config);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  const Config& config() const { return config_; }
  const TempFolders& folders() const { return folders_; }
  SignatureState state();
  SignatureState waitLoaded(std::chrono::milliseconds limit);
  bool reload(std::string* why);
  void abandonReload();

  /// A channel to a fresh worker, or why there is none. Never blocks.
  struct Forked {
    Channel channel;          ///< its worker says hello, or the channel ends
    unsigned generation = 0;  ///< of the template it came from
    /// While signatures load: try again once either of its descriptors is readable.
    std::shared_ptr<const TemplateLink> loading;
    std::string problem;
  };
  Forked forkWorker();
  /// Changes with each reload and each new template.
  unsigned generation();

 private:
  using Clock = std::chrono::steady_clock;
  using Template = std::shared_ptr<const TemplateLink>;  // shared with those who wait for it

  Template startTemplate(std::string& problem);
  void restartTemplate();
  void absorb();
  static std::optional<SignatureState> awaitReport(const Template& fresh);

  const Config config_;
  TempFolders folders_;
  pid_t pid_ = -1;
  Channel spawner_;
  std::mutex mutex_;  // guards all below
  std::mutex reloadMutex_;
  Template template_;
  Template reloading_;  ///< what a reload waits for
  bool abandoned_ = false;
  SignatureState state_;
  unsigned generation_ = 0;
  int failures_ = 0;  // templates that ended while they loaded, one after the other
};

}  // namespace agent
