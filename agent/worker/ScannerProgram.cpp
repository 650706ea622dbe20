#include "worker/ScannerProgram.h"

#include <clamav.h>
#include <fcntl.h>
#include <iconv.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <string_view>
#include <utility>

#include "worker/CallFilter.h"
#include "worker/Messages.h"
#include "worker/SpawnerProcess.h"
#include "worker/TemplateProcess.h"

namespace agent {
namespace {

// The encodings of web pages and documents that libclamav converts, and the C library loads from files.
constexpr const char* kEncodings[] = {
    "CP437",      "CP737",      "CP775",       "CP850",       "CP852",       "CP855",       "CP857",
    "CP858",      "CP860",      "CP861",       "CP862",       "CP863",       "CP864",       "CP865",
    "CP866",      "CP869",      "CP874",       "CP932",       "CP949",       "CP1250",      "CP1251",
    "CP1252",     "CP1253",     "CP1254",      "CP1255",      "CP1256",      "CP1257",      "CP1258",
    "ISO-8859-1", "ISO-8859-2", "ISO-8859-3",  "ISO-8859-4",  "ISO-8859-5",  "ISO-8859-6",  "ISO-8859-7",
    "ISO-8859-8", "ISO-8859-9", "ISO-8859-10", "ISO-8859-13", "ISO-8859-14", "ISO-8859-15", "ISO-8859-16",
    "KOI8-R",     "KOI8-U",     "MACINTOSH",   "GBK",         "GB18030",     "GB2312",      "BIG5",
    "EUC-JP",     "EUC-KR",     "EUC-TW",      "SHIFT_JIS",   "ISO-2022-JP", "ISO-2022-KR", "JOHAB",
    "TIS-620",    "UTF-7",      "UTF-16",      "UTF-16LE",    "UTF-16BE",    "UTF-32",      "UCS-2"};

// Afterwards no library opens a file of the system: the root will be empty. Nothing from outside is read.
void loadLibraryFiles() {
  cl_init(CL_INIT_DEFAULT);
  for (const char* encoding : kEncodings) {
    [[maybe_unused]] const iconv_t kept =
        iconv_open("UTF-8", encoding);  // not closed: the module would be unloaded
  }
}

TemplateStart receiveStart(const Channel& agent) {
  Channel::Packet packet;
  if (agent.receive(packet, true) == Channel::Received::kPacket) {
    if (const auto start = decode<TemplateStart>(packet.bytes)) {
      return *start;
    }
  }
  _exit(1);
}

// Another user than before has no death signal. The spawner may have ended before the signal is set again:
// the number of the parent tells nothing in another process namespace.
void endWithSpawner() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const platform::Descriptor spawnerEnd(kSpawnerEndFd);
  pollfd ended{spawnerEnd.get(), POLLIN, 0};
  if (poll(&ended, 1, 0) > 0) {
    _exit(1);
  }
}

[[noreturn]] void refuse(const Channel& agent, const ConfinementState& confined) {
  StateReport report;
  report.confinement = confined;
  report.state.detail =
      "nothing is scanned, because the scanning processes cannot be confined: " + describe(confined);
  agent.send(encode(report));
  _exit(0);
}

}  // namespace

void runScannerProgram(int count, char** arguments, std::function<void(const std::string&)> beforeFile) {
  fcntl(kChannelFd, F_SETFD, FD_CLOEXEC);
  Channel agent{platform::Descriptor(kChannelFd)};
  if (count > 1 && std::string_view(arguments[1]) == kSpawnerMode) {
    runSpawnerProgram(std::move(agent));
  }
  prctl(PR_SET_NAME, "tav-template");
  const TemplateStart start = receiveStart(agent);
  loadLibraryFiles();
  Confinement confinement({start.user,
                           {start.shippedSignatures, start.systemSignatures, start.signatureCopies},
                           start.tempFolder,
                           start.tempBytes,
                           start.memoryBytes,
                           start.limits.maxFileBytes});
  const ConfinementState confined = confinement.confine();
  endWithSpawner();
  if (!mayScan(confined, start.unconfined)) {
    refuse(agent, confined);
  }
  runTemplate({std::move(agent),
               {start.shippedSignatures, start.systemSignatures, start.limits, start.signatureCopies,
                start.copyForMissing},
               WorkerFolders{"", confinement.tempFolder()},
               std::move(beforeFile),
               &confinement,
               confined});
}

}  // namespace agent
