#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "shell/TavCliCompletion.h"

/// The handlers that command grammars share: one makes the command's task, the others write into the task of
/// the line being executed. Each gives 1, or 0 where no such task is pending.
namespace shell {

namespace detail {

template <class Member>
struct MemberOf;

template <class Task, class Field>
struct MemberOf<Field Task::*> {
  using Owner = Task;
};

}  // namespace detail

/// The task that a handler writes into; null when none of that kind is pending.
template <class Task>
Task* currentTask() {
  return TavCliCompletion::instance().pendingTaskAs<Task>();
}

/// Of a command's own keyword: makes the task and hands it to the shell.
template <class Task>
std::uint8_t startTask(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  TavCliCompletion::instance().setPendingTask(std::make_unique<Task>());
  return 1;
}

/// Sets the field to the number.
template <auto field, std::int32_t number>
std::uint8_t setField(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  auto* const task = currentTask<typename detail::MemberOf<decltype(field)>::Owner>();
  if (task == nullptr) {
    return 0;
  }
  task->*field = number;
  return 1;
}

/// Appends the value to the list.
template <auto field>
std::uint8_t appendValue(const CliNodeInfo& /*node*/, const std::string& value) {
  auto* const task = currentTask<typename detail::MemberOf<decltype(field)>::Owner>();
  if (task == nullptr) {
    return 0;
  }
  (task->*field).push_back(value);
  return 1;
}

}  // namespace shell
