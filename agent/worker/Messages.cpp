#include "worker/Messages.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace agent {
namespace {

constexpr std::size_t kLongestText = 4096;
constexpr std::size_t kLongestList = 256;

template <class T>
inline constexpr bool kIsPlain = std::is_arithmetic_v<T> || std::is_enum_v<T>;

class Writer {
 public:
  explicit Writer(char tag) : out_(1, tag) {}
  std::string take() { return std::move(out_); }

  void operator()(const std::string& text) {
    const std::size_t size = std::min(text.size(), kLongestText);
    (*this)(static_cast<std::uint32_t>(size));
    out_.append(text, 0, size);
  }
  template <class T>
  void operator()(const std::vector<T>& list) {
    const std::size_t size = std::min(list.size(), kLongestList);
    (*this)(static_cast<std::uint32_t>(size));
    for (std::size_t i = 0; i < size; ++i) {
      (*this)(list[i]);
    }
  }
  template <class T>
  void operator()(const T& value) {
    if constexpr (kIsPlain<T>) {
      out_.append(reinterpret_cast<const char*>(&value), sizeof value);
    } else {
      MessageFields<T>::visit(*this, value);
    }
  }

 private:
  std::string out_;
};

class Reader {
 public:
  explicit Reader(std::string_view packet) : rest_(packet) {}
  bool whole() const { return good_ && rest_.empty(); }

  void operator()(std::string& text) {
    const std::uint32_t size = count(kLongestText);
    if (good_ && size <= rest_.size()) {
      text = rest_.substr(0, size);
      rest_.remove_prefix(size);
    } else {
      good_ = false;
    }
  }
  template <class T>
  void operator()(std::vector<T>& list) {
    const std::uint32_t size = count(kLongestList);
    for (std::uint32_t i = 0; i < size && good_; ++i) {
      (*this)(list.emplace_back());
    }
  }
  void operator()(bool& value) {
    std::uint8_t byte = 0;
    (*this)(byte);
    value = byte != 0;
  }
  void operator()(Outcome& value) {
    std::uint8_t number = 0;
    (*this)(number);
    good_ = good_ && number <= static_cast<std::uint8_t>(Outcome::kSkipped);
    value = good_ ? static_cast<Outcome>(number) : Outcome::kError;
  }
  void operator()(json::RiskType& value) {
    std::int32_t number = 0;
    (*this)(number);
    const auto known = json::fromNumber<json::RiskType>(number);
    good_ = good_ && known;
    value = known.value_or(json::RiskType::kVirus);
  }
  template <class T>
  void operator()(T& value) {
    if constexpr (kIsPlain<T>) {
      if (rest_.size() < sizeof value) {
        good_ = false;
        return;
      }
      std::memcpy(&value, rest_.data(), sizeof value);
      rest_.remove_prefix(sizeof value);
    } else {
      MessageFields<T>::visit(*this, value);
    }
  }

 private:
  std::uint32_t count(std::size_t largest) {
    std::uint32_t size = 0;
    (*this)(size);
    good_ = good_ && size <= largest;
    return good_ ? size : 0;
  }

  std::string_view rest_;
  bool good_ = true;
};

}  // namespace

template <class M>
std::string encode(const M& message) {
  Writer writer(MessageFields<M>::kTag);
  MessageFields<M>::visit(writer, message);
  return writer.take();
}

template <class M>
std::optional<M> decode(std::string_view packet) {
  if (packet.empty() || packet.front() != MessageFields<M>::kTag) {
    return std::nullopt;
  }
  M message;
  Reader reader(packet.substr(1));
  MessageFields<M>::visit(reader, message);
  return reader.whole() ? std::optional<M>(std::move(message)) : std::nullopt;
}

template std::string encode(const SpawnerStart&);
template std::string encode(const ForkRequest&);
template std::string encode(const TemplateStart&);
template std::string encode(const StateReport&);
template std::string encode(const CallBreach&);
template std::string encode(const OutOfProcessorTime&);
template std::string encode(const WorkerHello&);
template std::string encode(const ScanRequest&);
template std::string encode(const ScanAnswer&);
template std::optional<SpawnerStart> decode(std::string_view);
template std::optional<ForkRequest> decode(std::string_view);
template std::optional<TemplateStart> decode(std::string_view);
template std::optional<StateReport> decode(std::string_view);
template std::optional<CallBreach> decode(std::string_view);
template std::optional<OutOfProcessorTime> decode(std::string_view);
template std::optional<WorkerHello> decode(std::string_view);
template std::optional<ScanRequest> decode(std::string_view);
template std::optional<ScanAnswer> decode(std::string_view);

}  // namespace agent
