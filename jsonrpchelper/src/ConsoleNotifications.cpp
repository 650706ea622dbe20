#include "jsonrpchelper/ConsoleNotifications.h"

namespace jsonrpchelper {

const std::vector<MethodRow>& consoleNotifications() {
  static const std::vector<MethodRow> kRows = rowsOf(ConsoleNotifications());
  return kRows;
}

}  // namespace jsonrpchelper
