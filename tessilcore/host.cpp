// THost: schema loading, the instance store and its runs, the plug-in manager, the logger,
// and the static services the plug-in reaches through TRootObject and friends.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <cctype>
#include <cstdlib>
#include <map>

#include "tessilcore/dynlib.h"
#include "tessilcore/faults.h"
#include "tessilcore/host_impl.h"
#include "tessilcore/object_path.h"

namespace tessil_schema {
const std::map<std::string, std::string>& files();
}

namespace NKestovaTessil20 {

namespace {

const char kComputerSystem[] = "KestovaSG_ComputerSystem";

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The plug-in manager as the plug-ins see it: the host's namespace plus registration.
class TPluginManager : public TPluginManagerNamespace {
 public:
  explicit TPluginManager(THost::Impl* host) : host_(host) {}
  void GetClass(shared_ptr<ICIMClass>& out, const std::string& className,
                const TOptions& options) override {
    host_->ns->GetClass(out, className, options);
  }
  std::string GetNamespaceName() const override { return "root/plugins"; }
  void EnumerateClassNames(ICIMNameCallback& callback, const TOptions& options) override {
    host_->ns->EnumerateClassNames(callback, options);
  }
  TPluginManagerProvider* RegisterPlugin(IPluginCallbacks* callbacks) override {
    return host_->Register(callbacks)->provider.get();
  }

 private:
  THost::Impl* host_;
};

IPluginBasicQueryCallbacks* QueryInterface(IPluginCallbacks* callbacks) {
  return dynamic_cast<IPluginBasicQueryCallbacks*>(callbacks);
}

#ifndef _WIN32
// Runs before the static objects of the plug-ins loaded so far are destroyed (it is
// registered after them), so their callbacks objects can still be deleted by their code.
void UnloadAtExit() {
  THost::Instance().UnloadPlugins();
}
#endif

}  // namespace

TPluginManagerNamespace::~TPluginManagerNamespace() = default;

// ---- Impl ----

THost::Impl::Impl() : ns(boost::make_shared<TNamespace>(this)) {}

THost::Impl::~Impl() {
  // Plug-ins left loaded at process end are not called any more: their own static
  // objects may already be gone. UnloadPlugins is the orderly way out.
  for (auto& plugin : plugins) plugin->callbacks = nullptr;
}

void THost::Impl::LoadCompiledSchema() {
  if (schemaLoaded) return;
  for (const auto& file : tessil_schema::files()) schema.Load(file.first, file.second, true);
  schema.CheckReferences();
  schemaLoaded = true;
}

TClassPtr THost::Impl::ClassOrStandIn(const std::string& className) const {
  TClassPtr decl = schema.Find(className);
  if (decl) return decl;
  auto standIn = boost::make_shared<TClassDeclaration>();
  standIn->name = className;
  return standIn;
}

boost::shared_ptr<ICIMClass> THost::Impl::MakeClass(const TClassPtr& decl) {
  return boost::make_shared<TClass>(this, decl);
}

void THost::Impl::Commit(const boost::shared_ptr<TInstance>& instance) {
  // An instance whose keys repeat an earlier one's is kept too: the collectors report some
  // items twice on purpose (the current user from two sources, a repeated setup line), and
  // an inventory that drops them, or the rest of their class, would lose data.
  instance->MarkCommitted();
  committed.push_back(instance);
}

std::vector<boost::shared_ptr<ICIMInstance>> THost::Impl::Committed(const std::string& className,
                                                                    bool deep) const {
  std::vector<boost::shared_ptr<ICIMInstance>> found;
  for (const auto& instance : committed) {
    const std::string& name = instance->Declaration()->name;
    if (deep ? schema.IsA(name, className) : path::EqualNoCase(name, className)) {
      found.push_back(instance);
    }
  }
  return found;
}

void THost::Impl::RunPlugins(std::vector<TClassPtr> classes) {
  // Plain classes first, so that associations find their ends already collected.
  std::stable_partition(classes.begin(), classes.end(),
                        [](const TClassPtr& c) { return !c->association; });
  std::vector<boost::shared_ptr<ICIMClass>> handles;
  for (const TClassPtr& decl : classes) handles.push_back(MakeClass(decl));
  // Index loop: a plug-in may register another while it runs.
  for (std::size_t i = 0; i < plugins.size(); ++i) {
    IPluginBasicQueryCallbacks* query = QueryInterface(plugins[i]->callbacks);
    if (query == nullptr) continue;
    std::vector<boost::shared_ptr<ICIMClass>> request(handles);
    RunPluginQuery(*query, request);
  }
}

// A plug-in that lets an exception out is logged; the run goes on with the next one.
void THost::Impl::RunPluginQuery(IPluginBasicQueryCallbacks& query,
                                 std::vector<boost::shared_ptr<ICIMClass>>& request) {
  THostFaults::EnterPlugin();
  try {
    query.QueryInstances(ns, request);
  } catch (const TTessilException& e) {
    logger.Log(0, "Host: plug-in query failed: " + std::string(e.what()) + " " + e.GetDetail());
  } catch (const std::exception& e) {
    logger.Log(0, "Host: plug-in query failed: " + std::string(e.what()));
  }
  THostFaults::LeavePlugin();
}

void THost::Impl::EnumerateInstances(const std::string& className, bool deep,
                                     ICIMObjectCallback<ICIMInstance>& callback) {
  std::vector<TClassPtr> targets;
  for (const TClassPtr& decl : schema.Classes()) {
    const bool wanted =
        deep ? schema.IsA(decl->name, className) : path::EqualNoCase(decl->name, className);
    if (wanted && !decl->provider.empty() && collected.count(Lower(decl->name)) == 0) {
      targets.push_back(decl);
    }
  }
  for (std::size_t i = 0; i < plugins.size(); ++i) {
    IPluginCallbacks* callbacks = plugins[i]->callbacks;
    IPluginBasicQueryCallbacks* query = QueryInterface(callbacks);
    if (query == nullptr) continue;
    const std::string name = callbacks->GetName();
    std::vector<boost::shared_ptr<ICIMClass>> request;
    for (const TClassPtr& decl : targets) {
      // Marked before the plug-in runs, so that a nested enumeration never comes back here.
      if (decl->provider == name && collected.insert(Lower(decl->name)).second) {
        request.push_back(MakeClass(decl));
      }
    }
    if (request.empty()) continue;
    RunPluginQuery(*query, request);
  }
  for (const auto& instance : Committed(className, deep)) callback.Report(instance);
}

void THost::Impl::StartRun() {
  committed.clear();
  collected.clear();
  TClassPtr computerSystem = schema.Find(kComputerSystem);
  if (!computerSystem) return;
  // The host speaks for the scanned machine itself, so that the account associations
  // have a group side.
  auto instance = boost::make_shared<TInstance>(this, computerSystem);
  instance->SetPropertyValue("CreationClassName", TCIMValue(kComputerSystem), {});
  instance->SetPropertyValue("Name", TCIMValue(TOSSpecific::GetMachineName()), {});
  Commit(instance);
}

TPluginRecord* THost::Impl::Register(IPluginCallbacks* callbacks) {
  if (callbacks == nullptr) throw TTessilException(kStatusInvalidArgument, "null plug-in");
  auto record = std::make_unique<TPluginRecord>();
  record->callbacks = callbacks;
  record->provider = std::make_unique<TPluginManagerProvider>(record.get());
  // The callbacks object keeps the provider in the pointer-sized field that follows its
  // two interface table pointers.
  *reinterpret_cast<void**>(reinterpret_cast<char*>(callbacks) + 2 * sizeof(void*)) =
      record->provider.get();
  TPluginRecord* raw = record.get();
  plugins.push_back(std::move(record));
  if (loading) registeredDuringLoad.push_back(raw);
  return raw;
}

void THost::Impl::Unload() {
  // Last registered, first gone: a later plug-in may depend on an earlier one.
  while (!plugins.empty()) {
    std::unique_ptr<TPluginRecord> record = std::move(plugins.back());
    plugins.pop_back();
    IPluginCallbacks* callbacks = record->callbacks;
    if (callbacks != nullptr) {
      if (record->initialized) callbacks->DeInit();
      // The plug-in deletes itself, with the allocator that made it.
      callbacks->Release(callbacks);
    }
    dynlib::Close(record->library);
  }
}

// ---- THost ----

THost& THost::Instance() {
  static THost host;
  return host;
}

THost::THost() : impl_(std::make_unique<Impl>()) {
  try {
    impl_->LoadCompiledSchema();
  } catch (const TTessilException& e) {
    // Reported again by an explicit LoadSchema(); the host still starts.
    impl_->logger.Log(0, "Host: schema not loaded: " + e.GetDetail());
  }
}

THost::~THost() = default;

void THost::LoadSchema() {
  impl_->LoadCompiledSchema();
}

void THost::LoadSchemaText(const std::string& fileName, const std::string& text) {
  impl_->schema.Load(fileName, text, false);
}

shared_ptr<ICIMNamespace> THost::GetNamespace() {
  return impl_->ns;
}

std::vector<std::string> THost::GetClassNames() {
  std::vector<std::string> names;
  for (const TClassPtr& decl : impl_->schema.Classes()) names.push_back(decl->name);
  return names;
}

void THost::LoadPlugin(const std::string& path) {
  impl_->loading = true;
  impl_->registeredDuringLoad.clear();
  std::string error;
  void* library = dynlib::Open(path, error);
  impl_->loading = false;
  if (library == nullptr) {
    throw TTessilException(kStatusPluginLoadFailed, path + ": " + error);
  }
  const std::vector<TPluginRecord*> registered = impl_->registeredDuringLoad;
  impl_->registeredDuringLoad.clear();
  if (registered.empty()) {
    // Loading a library twice runs its load-time code once; the first load serves.
    for (const auto& plugin : impl_->plugins) {
      if (plugin->library == library) {
        dynlib::Close(library);
        return;
      }
    }
    dynlib::Close(library);
    throw TTessilException(kStatusPluginNotRegistered, path + ": loaded but registered no plug-in");
  }
  // The first record closes the library; a library that registers twice is closed once.
  registered.front()->library = library;
  for (TPluginRecord* record : registered) record->path = path;
#ifndef _WIN32
  if (this == &Instance()) std::atexit(UnloadAtExit);
#endif
}

std::vector<std::string> THost::GetPluginClassNames() {
  std::vector<std::string> names;
  for (const auto& plugin : impl_->plugins) {
    if (plugin->callbacks != nullptr) names.push_back(plugin->callbacks->GetName());
  }
  std::vector<std::string> plain;
  std::vector<std::string> associations;
  for (const TClassPtr& decl : impl_->schema.Classes()) {
    if (decl->provider.empty() ||
        std::find(names.begin(), names.end(), decl->provider) == names.end()) {
      continue;
    }
    (decl->association ? associations : plain).push_back(decl->name);
  }
  plain.insert(plain.end(), associations.begin(), associations.end());
  return plain;
}

void THost::InitPlugins() {
  for (std::size_t i = 0; i < impl_->plugins.size(); ++i) {
    TPluginRecord& plugin = *impl_->plugins[i];
    if (plugin.initialized || plugin.callbacks == nullptr) continue;
    plugin.callbacks->Init();
    plugin.initialized = true;
  }
}

void THost::DeInitPlugins() {
  for (std::size_t i = 0; i < impl_->plugins.size(); ++i) {
    TPluginRecord& plugin = *impl_->plugins[i];
    if (!plugin.initialized || plugin.callbacks == nullptr) continue;
    plugin.callbacks->DeInit();
    plugin.initialized = false;
  }
}

void THost::UnloadPlugins() {
  impl_->Unload();
}

void THost::Query(const std::vector<std::string>& classNames) {
  impl_->StartRun();
  std::vector<TClassPtr> classes;
  for (const std::string& name : classNames) {
    classes.push_back(impl_->ClassOrStandIn(name));
    impl_->collected.insert(Lower(name));
  }
  impl_->RunPlugins(classes);
}

std::vector<shared_ptr<ICIMInstance>> THost::GetInstances(const std::string& className, bool deep) {
  return impl_->Committed(className, deep);
}

const std::vector<TLogRecord>& THost::GetLog() const {
  return impl_->logger.records;
}

void THost::ClearLog() {
  impl_->logger.records.clear();
}

ILogger* THost::GetLogger() {
  return &impl_->logger;
}

void THost::Reset() {
  impl_->Unload();
  impl_->committed.clear();
  impl_->collected.clear();
  impl_->logger.records.clear();
}

// ---- static services ----

shared_ptr<ICIMNamespace> TRootObject::GetPluginManager() {
  static boost::shared_ptr<TPluginManager> manager =
      boost::make_shared<TPluginManager>(THost::Instance().impl_.get());
  return manager;
}

ILogger* TRootObject::GetCoreLogger() {
  return THost::Instance().GetLogger();
}

const std::string TCIMSchemaHelper::kPluginNSPName = "__PluginNamespace";
const std::string TCIMSchemaHelper::kContextName = "__Context";

std::string TCIMSchemaHelper::GetSystemName(shared_ptr<ICIMNamespace>) {
  THostFaults::Call("TCIMSchemaHelper::GetSystemName");
  return TOSSpecific::GetMachineName();
}

std::string TCIMSchemaHelper::GetSystemCreationClassName(shared_ptr<ICIMNamespace>) {
  THostFaults::Call("TCIMSchemaHelper::GetSystemCreationClassName");
  return kComputerSystem;
}

}  // namespace NKestovaTessil20
