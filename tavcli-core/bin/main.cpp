#include <string>
#include <vector>

#include "bin/Console.h"

int main(int argumentCount, char** arguments) {
  return tavcli::runConsole(std::vector<std::string>(arguments, arguments + argumentCount));
}
