// The host's object model and state behind THost. Internal.
#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tessilcore/host.h"
#include "tessilcore/schema.h"

namespace NKestovaTessil20 {

class TNamespace;
class TInstance;

class TCoreLogger : public ILogger {
 public:
  void Log(unsigned int level, const std::string& message) override {
    records.push_back({level, message});
  }
  std::vector<TLogRecord> records;
};

struct TPluginRecord;

// The handle a registered plug-in receives; the host owns it.
class TPluginManagerProvider {
 public:
  explicit TPluginManagerProvider(TPluginRecord* owner) : record(owner) {}
  TPluginRecord* record;
};

struct TPluginRecord {
  IPluginCallbacks* callbacks = nullptr;
  std::unique_ptr<TPluginManagerProvider> provider;
  void* library = nullptr;  // null for a plug-in linked into the process
  std::string path;
  bool initialized = false;
};

struct THost::Impl {
  TSchema schema;
  bool schemaLoaded = false;
  TCoreLogger logger;
  boost::shared_ptr<TNamespace> ns;

  // The store of the current run: committed instances in commit order, and
  // the classes whose plug-in has already run (lower-case names).
  std::vector<boost::shared_ptr<TInstance>> committed;
  std::set<std::string> collected;

  std::vector<std::unique_ptr<TPluginRecord>> plugins;
  bool loading = false;
  std::vector<TPluginRecord*> registeredDuringLoad;

  Impl();
  ~Impl();
  void LoadCompiledSchema();
  // The declared class, or an empty, non-association stand-in for an unknown name.
  TClassPtr ClassOrStandIn(const std::string& className) const;
  boost::shared_ptr<ICIMClass> MakeClass(const TClassPtr& decl);
  void Commit(const boost::shared_ptr<TInstance>& instance);
  // One plug-in query; an exception it lets out is logged, not thrown on.
  void RunPluginQuery(IPluginBasicQueryCallbacks& query,
                      std::vector<boost::shared_ptr<ICIMClass>>& request);
  // Runs the plug-ins for the served classes among `className` (and its subclasses when
  // deep) not yet collected in this run, then reports the committed instances.
  void EnumerateInstances(const std::string& className, bool deep,
                          ICIMObjectCallback<ICIMInstance>& callback);
  std::vector<boost::shared_ptr<ICIMInstance>> Committed(const std::string& className,
                                                         bool deep) const;
  void RunPlugins(std::vector<TClassPtr> classes);
  void StartRun();
  TPluginRecord* Register(IPluginCallbacks* callbacks);
  void Unload();
};

class TNamespace : public ICIMNamespace {
 public:
  explicit TNamespace(THost::Impl* host) : host_(host) {}
  void GetClass(shared_ptr<ICIMClass>& out, const std::string& className,
                const TOptions& options) override;
  std::string GetNamespaceName() const override { return "root/kestova"; }
  void EnumerateClassNames(ICIMNameCallback& callback, const TOptions& options) override;

 private:
  THost::Impl* host_;
};

class TClass : public ICIMClass {
 public:
  TClass(THost::Impl* host, TClassPtr decl)
      : host_(host), decl_(std::move(decl)), decls_(decl_->properties.size()) {}
  std::string GetName() override;
  void GetNamespace(shared_ptr<ICIMNamespace>& out, const TOptions& options) override;
  bool IsAssociation() override;
  void EnumeratePropertyNames(TAddKeyNamesToVectorCallback& callback,
                              const TOptions& options) override;
  void GetPropertyDecl(shared_ptr<const ICIMPropertyDecl>& out, const std::string& name,
                       const TOptions& options) override;
  void CreateInstance(shared_ptr<ICIMInstance>& out, const TOptions& options) override;
  void EnumerateInstances(TAddToVectorCallback<ICIMInstance>& callback, bool deep,
                          const TOptions& options) override;
  std::string GetSuperClassName() override { return decl_->superName; }

  const TClassPtr& Declaration() const { return decl_; }

 private:
  THost::Impl* host_;
  TClassPtr decl_;
  // One declaration object per property, made when first asked for: collectors ask for
  // one for every property of every instance they build.
  std::mutex declsMutex_;
  std::vector<shared_ptr<const ICIMPropertyDecl>> decls_;
};

class TInstance : public ICIMInstance, public boost::enable_shared_from_this<TInstance> {
 public:
  TInstance(THost::Impl* host, TClassPtr decl)
      : host_(host), decl_(std::move(decl)), values_(decl_->properties.size()) {}
  void Commit(const TOptions& options) override;
  void GetReference(TCIMReference& out, const TOptions& options) override;
  void GetProperty(shared_ptr<ICIMProperty>& out, const std::string& name,
                   const TOptions& options) override;
  void SetPropertyValue(const std::string& name, const TCIMValue& value,
                        const TOptions& options) override;
  std::string GetInstanceClassName() const override { return decl_->name; }
  bool IsCommitted() const override { return committed_; }

  const TClassPtr& Declaration() const { return decl_; }
  const TCIMValue& Value(std::size_t index) const { return values_[index]; }
  std::string Path() const;
  void MarkCommitted() { committed_ = true; }

 private:
  THost::Impl* host_;
  TClassPtr decl_;
  std::vector<TCIMValue> values_;  // one per declared property, null while unset
  bool committed_ = false;
};

}  // namespace NKestovaTessil20
