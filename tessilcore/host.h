// The reference host: schema, instance store, plug-in manager and logger behind the
// contract of host/*.h, and the API through which iac and the tests drive it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

#include "host/tessil.h"

namespace NKestovaTessil20 {

struct TLogRecord {
  unsigned level;
  std::string message;
};

// One declared property of an instance, as a printer walks it.
struct TPropertyView {
  std::string name;
  TCIMValue value;  // null while unset
  TCIMValue::TCIMType type;
  bool isArray;
  bool isKey;
  std::string referenceClass;  // REF properties only
};

class TESSIL_API THost {
 public:
  // The process-wide host, which TRootObject answers from. Loads the compiled-in schema.
  static THost& Instance();

  // A separate host with its own schema and store (tests); plug-ins still register with
  // Instance().
  THost();
  ~THost();
  THost(const THost&) = delete;
  THost& operator=(const THost&) = delete;

  // The compiled-in schema; idempotent. Throws TTessilException(12) if it is broken.
  void LoadSchema();
  // Adds the classes of one MOF text, all or none. Throws TTessilException(12) whose
  // detail is "fileName:line: message".
  void LoadSchemaText(const std::string& fileName, const std::string& text);
  shared_ptr<ICIMNamespace> GetNamespace();
  std::vector<std::string> GetClassNames();  // declaration order

  // Loads a plug-in library, which registers itself while it loads. Throws
  // TTessilException 10 (cannot load) or 11 (loaded, never registered); the detail names
  // the file and the loader's reason.
  void LoadPlugin(const std::string& path);
  // Classes whose Provider qualifier names a registered plug-in: plain classes first, then
  // associations, each in declaration order.
  std::vector<std::string> GetPluginClassNames();
  void InitPlugins();
  void DeInitPlugins();
  // DeInit where still needed, delete each callbacks object, close the libraries.
  void UnloadPlugins();

  // One top-level run: forgets the instances of the last run, commits this machine's
  // KestovaSG_ComputerSystem, and asks every plug-in for `classNames`.
  void Query(const std::vector<std::string>& classNames);
  // Committed instances of the class (and, when deep, its subclasses), in commit order.
  // Does not run plug-ins.
  std::vector<shared_ptr<ICIMInstance>> GetInstances(const std::string& className, bool deep);
  // Every declared property of an instance of this host, in declaration order.
  static std::vector<TPropertyView> ListProperties(const shared_ptr<ICIMInstance>& instance);

  const std::vector<TLogRecord>& GetLog() const;
  void ClearLog();
  ILogger* GetLogger();

  // Forgets plug-ins (unloading them), instances and the log; keeps the schema.
  void Reset();

  struct Impl;

 private:
  friend class TRootObject;
  std::unique_ptr<Impl> impl_;
};

}  // namespace NKestovaTessil20
