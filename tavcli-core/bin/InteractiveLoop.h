#pragma once

namespace tavcli {

/// The prompt: reads lines, hands each to the shell and prints what it refuses, until end of input, "exit",
/// or a signal that ends the console; the history is loaded before and saved behind. Main thread, agent link
/// up.
void runInteractive();

}  // namespace tavcli
