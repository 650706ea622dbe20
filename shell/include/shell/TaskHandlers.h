#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "shell/TavCliCompletion.h"

/// The handlers that command grammars share. startTask() makes the task of a command; the other handlers
/// write into the task of the line being executed. Each handler returns 1, or 0 when no task of its type is
/// pending.
namespace shell {

namespace detail {

template <class Member>
struct MemberOf;

template <class Task, class Field>
struct MemberOf<Field Task::*> {
  using Owner = Task;
};

}  // namespace detail

/// The handler of a command's first keyword. Makes the task and passes the task to the shell.
template <class Task>
std::uint8_t startTask(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  TavCliCompletion::instance().setPendingTask(std::make_unique<Task>());
  return 1;
}

/// For the handlers of later keywords: applies the change to the pending task.
template <class Task, class Change>
std::uint8_t changeTask(Change change) {
  Task* const task = TavCliCompletion::instance().pendingTaskAs<Task>();
  if (task == nullptr) {
    return 0;
  }
  change(*task);
  return 1;
}

/// The handler that sets a field of the task to a number.
template <auto field, std::int32_t number>
std::uint8_t setField(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  using Task = typename detail::MemberOf<decltype(field)>::Owner;
  return changeTask<Task>([](Task& task) { task.*field = number; });
}

/// The handler that appends the value to a list of the task.
template <auto field>
std::uint8_t appendValue(const CliNodeInfo& /*node*/, const std::string& value) {
  using Task = typename detail::MemberOf<decltype(field)>::Owner;
  return changeTask<Task>([&value](Task& task) { (task.*field).push_back(value); });
}

}  // namespace shell
