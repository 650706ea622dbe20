#pragma once

/// Prints the editor's key bindings through the pager: for HELP CTRL, and for the editor's F1.
void showKeyHelp();
/// Prints the box of example commands through the pager.
void showApplicationHelp();
