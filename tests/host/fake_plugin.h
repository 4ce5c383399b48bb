// An in-process plug-in for host tests: counts the classes it is asked for, commits two
// instances of every plain class and joins the ends of every association it is asked for.
#pragma once

#include <boost/pointer_cast.hpp>
#include <map>
#include <string>
#include <vector>

#include "tessilcore/host.h"

namespace host_test {

namespace nk = NKestovaTessil20;

const char kCollectorName[] = "Installed Application Collector";

struct FakeLedger {
  std::vector<std::vector<std::string>> queries;  // class names of each QueryInstances call
  std::map<std::string, int> calls;               // per class
  std::vector<std::string> lifecycle;             // Init, DeInit, deleted
  std::vector<bool> associationFlags;             // IsAssociation of each class asked for
  std::vector<std::uint32_t> errors;              // host errors met, per class
};

class FakePlugin : public nk::IPluginCallbacks, public nk::IPluginBasicQueryCallbacks {
 public:
  void* provider = nullptr;  // the field RegisterPlugin fills: right after the two tables

  explicit FakePlugin(FakeLedger& ledger, std::string name = kCollectorName)
      : ledger_(ledger), name_(std::move(name)) {
    auto manager = boost::dynamic_pointer_cast<nk::TPluginManagerNamespace>(
        nk::TRootObject::GetPluginManager());
    registered = manager->RegisterPlugin(this);
  }
  ~FakePlugin() override { ledger_.lifecycle.push_back("deleted"); }

  void* Reserved() override { return nullptr; }
  std::string GetName() override { return name_; }
  std::string GetVersion() override { return "1.0"; }
  std::string GetFrameworkVersion() override { return "1.0"; }
  void Release(nk::IPluginCallbacks* object) override { delete object; }
  void Init() override { ledger_.lifecycle.push_back("Init"); }
  void DeInit() override { ledger_.lifecycle.push_back("DeInit"); }

  std::uint64_t QueryInstances(boost::shared_ptr<nk::ICIMNamespace> ns,
                               std::vector<boost::shared_ptr<nk::ICIMClass>>& classes) override {
    std::vector<std::string> names;
    for (const auto& cls : classes) names.push_back(cls->GetName());
    ledger_.queries.push_back(names);
    for (const auto& cls : classes) {
      ++ledger_.calls[cls->GetName()];
      ledger_.associationFlags.push_back(cls->IsAssociation());
      // Like a real dispatcher: a host error ends this class only.
      try {
        if (cls->IsAssociation()) {
          Join(ns, cls);
        } else {
          for (int i = 0; i < 2; ++i) MakeInstance(cls, i);
        }
      } catch (const nk::TTessilException& e) {
        ledger_.errors.push_back(e.GetStatusCode());
      }
    }
    return 0;
  }

  nk::TPluginManagerProvider* registered = nullptr;

 private:
  static std::vector<std::string> Properties(const boost::shared_ptr<nk::ICIMClass>& cls) {
    std::vector<std::string> names;
    nk::TAddKeyNamesToVectorCallback callback(names);
    cls->EnumeratePropertyNames(callback, {});
    return names;
  }

  static void MakeInstance(const boost::shared_ptr<nk::ICIMClass>& cls, int index) {
    boost::shared_ptr<nk::ICIMInstance> instance;
    cls->CreateInstance(instance, {});
    for (const std::string& name : Properties(cls)) {
      boost::shared_ptr<const nk::ICIMPropertyDecl> decl;
      cls->GetPropertyDecl(decl, name, {});
      if (decl->IsKey()) {
        instance->SetPropertyValue(name, nk::TCIMValue(name + std::to_string(index)), {});
      }
    }
    instance->Commit({});
  }

  // Every pair of the two referenced classes' instances, by deep enumeration.
  static void Join(const boost::shared_ptr<nk::ICIMNamespace>& ns,
                   const boost::shared_ptr<nk::ICIMClass>& cls) {
    std::vector<std::string> roles;
    std::vector<std::vector<boost::shared_ptr<nk::ICIMInstance>>> ends;
    for (const std::string& name : Properties(cls)) {
      boost::shared_ptr<const nk::ICIMPropertyDecl> decl;
      cls->GetPropertyDecl(decl, name, {});
      if (decl->GetReferenceClass().empty()) continue;
      boost::shared_ptr<nk::ICIMClass> end;
      ns->GetClass(end, decl->GetReferenceClass(), {});
      roles.push_back(name);
      ends.emplace_back();
      nk::TAddToVectorCallback<nk::ICIMInstance> callback(ends.back());
      end->EnumerateInstances(callback, true, {});
    }
    if (ends.size() != 2) return;
    for (const auto& first : ends[0]) {
      for (const auto& second : ends[1]) {
        nk::TCIMReference a, b;
        first->GetReference(a, {});
        second->GetReference(b, {});
        boost::shared_ptr<nk::ICIMInstance> link;
        cls->CreateInstance(link, {});
        link->SetPropertyValue(roles[0], nk::TCIMValue(a), {});
        link->SetPropertyValue(roles[1], nk::TCIMValue(b), {});
        link->Commit({});
      }
    }
  }

  FakeLedger& ledger_;
  std::string name_;
};

}  // namespace host_test
