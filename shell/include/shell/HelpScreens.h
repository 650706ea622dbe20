#pragma once

/// Prints the table of keys through the pager. HELP CTRL and F1 call this function.
void showKeyHelp();
/// Prints the box of example commands through the pager. HELP APP calls this function.
void showApplicationHelp();
