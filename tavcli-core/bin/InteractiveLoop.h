#pragma once

namespace tavcli {

/// Runs the prompt until end of input, "exit", or a signal that ends the console. The shell executes each
/// line. The prompt prints the message of a negative result. Loads the history first and saves the history
/// last. The agent link must be up. Main thread.
void runInteractive();

}  // namespace tavcli
