#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/Locks.h"

class CliTree;

// The framework of the command modules. A module registers itself before main; the shell (TavCliCompletion)
// loads the modules and attaches their grammars to its tree.

/// The root class of the framework.
class CObject {
 public:
  virtual ~CObject() = default;

 protected:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
};

namespace utils {

/// The argument for a template parameter that an instantiation does not use.
struct unuse {};

/// The interface of a module. A module has a name, an owner that loads the module, and a target to attach to.
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

/// A registry of modules by name. The registry does not own the modules: each module leaves the registry in
/// its destructor. Registration and loading may run on different threads.
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

  /// Returns 0 for a null module, otherwise 1. A second module of the same name does not replace the first.
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

/// One object in the process, built on first use.
template <class T>
class SingletonAbstract {
 public:
  static T& instance() {
    static T object;
    return object;
  }
};

}  // namespace utils

/// Base of every command module. The constructor of a module registers the module under its name. A module
/// owns its grammar records.
class TavcliCmdInterface : public utils::TaskInterface<std::string, CliTree*, utils::unuse> {
 public:
  ~TavcliCmdInterface() override;
  TavcliCmdInterface(const TavcliCmdInterface&) = delete;
  TavcliCmdInterface& operator=(const TavcliCmdInterface&) = delete;

  /// Stores the owner; returns 0.
  int load(CObject* owner) override {
    owner_ = owner;
    return 0;
  }
  int attach(CliTree* tree) override { return buildTree(tree); }
  int registerSelf() override;
  /// Makes the grammar records of the module and appends the records to the tree.
  virtual int buildTree(CliTree* tree) = 0;

 protected:
  explicit TavcliCmdInterface(std::string name);
};

/// Base of the task objects. The handlers of a command line's keywords build a task; the shell executes it.
class TavCliCmdExec {
 public:
  TavCliCmdExec() = default;
  virtual ~TavCliCmdExec() = default;
  TavCliCmdExec(const TavCliCmdExec&) = delete;
  TavCliCmdExec& operator=(const TavCliCmdExec&) = delete;
  /// Returns 0 for success, otherwise a code of the error table.
  virtual std::int32_t execute() = 0;
};
