#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "platform/Locks.h"

class CliTree;

/// Root of the module framework.
class CObject {
 public:
  virtual ~CObject() = default;

 protected:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
};

namespace utils {

/// Stands for a parameter that an instantiation has no use for.
struct unuse {};

/// The contract of a module: found by its name, loaded by its owner, attached to a target.
template <class Name, class Target, class Unused>
class TaskInterface : public CObject {
 public:
  /// owner: the shell that loads the module.
  virtual int load(CObject* owner) = 0;
  virtual int attach(Target target) = 0;
  virtual int registerSelf() = 0;
  virtual void reserved() {}

  const Name& name() const { return name_; }
  CObject* owner() const { return owner_; }

 protected:
  CObject* owner_ = nullptr;
  Name name_;
  Name description_;
};

/// A registry of modules by name. The modules are their makers' and leave before they die. Registration and
/// loading may come from different threads.
template <class Owner, class Module>
class ModuleAbstract : public CObject {
 public:
  /// Loads every registered module, in name order. Returns 1.
  virtual int load(CObject* owner) {
    owner_ = owner;
    forEachModule([owner](Module& module) { module.load(owner); });
    return 1;
  }
  virtual void reserved() {}

  /// 0 for a null module, else 1. A second module of the same name does not replace the first.
  int registerModule(Module* module) {
    if (module == nullptr) {
      return 0;
    }
    const CWriteLocker lock(modulesLock_);
    modules_.emplace(module->name(), module);
    return 1;
  }
  void unregisterModule(const Module* module) {
    const CWriteLocker lock(modulesLock_);
    const auto found = modules_.find(module->name());
    if (found != modules_.end() && found->second == module) {
      modules_.erase(found);
    }
  }

 protected:
  template <class Visit>
  void forEachModule(Visit visit) {
    const CReadLocker lock(modulesLock_);
    for (const auto& entry : modules_) {
      visit(*entry.second);
    }
  }

 private:
  CObject* owner_ = nullptr;
  std::map<std::string, Module*> modules_;
  CRwLock modulesLock_;
};

/// One object a process, built on first use.
template <class T>
class SingletonAbstract {
 public:
  static T& instance() {
    static T object;
    return object;
  }
};

}  // namespace utils

/// Base of every command module. A module registers itself under its name when it is built, and owns the
/// grammar records it adds to the tree.
class TavcliCmdInterface : public utils::TaskInterface<std::string, CliTree*, utils::unuse> {
 public:
  ~TavcliCmdInterface() override;
  TavcliCmdInterface(const TavcliCmdInterface&) = delete;
  TavcliCmdInterface& operator=(const TavcliCmdInterface&) = delete;

  /// Stores the owner; returns 0.
  int load(CObject* owner) override;
  int attach(CliTree* tree) override;
  int registerSelf() override;
  /// Creates the module's grammar records and appends them to the tree.
  virtual int buildTree(CliTree* tree) = 0;

 protected:
  explicit TavcliCmdInterface(std::string name);
};

/// Base of the task objects: what one command line asks for, built by the handlers of its keywords.
class TavCliCmdExec {
 public:
  TavCliCmdExec() = default;
  virtual ~TavCliCmdExec() = default;
  TavCliCmdExec(const TavCliCmdExec&) = delete;
  TavCliCmdExec& operator=(const TavCliCmdExec&) = delete;
  /// 0 for success, else a code of the error table.
  virtual std::int32_t execute() = 0;
};
