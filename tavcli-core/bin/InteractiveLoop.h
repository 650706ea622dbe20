#pragma once

namespace tavcli {

/// Runs the prompt until end of input, "exit", or a signal that ends the console. Each line goes to the
/// shell; the message of a refused line is printed. Loads the history first and saves the history last. The
/// agent link must be up. Main thread.
void runInteractive();

}  // namespace tavcli
