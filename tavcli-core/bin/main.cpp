#include <string>
#include <vector>

#include "bin/Console.h"
#include "platform/StandardStreams.h"

int main(int argumentCount, char** arguments) {
  platform::openClosedStandardStreams();
  return tavcli::runConsole(std::vector<std::string>(arguments, arguments + argumentCount));
}
