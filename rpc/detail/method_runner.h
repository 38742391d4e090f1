#pragma once

#include <memory>
#include <string>

#include "rpc/answer.h"
#include "rpc/methods.h"
#include "rpc/server_options.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class Journal;

/// Runs the methods that clients call, on any thread.
class MethodRunner {
 public:
  MethodRunner(Methods methods, Around around, Journal& journal);

  /// Executes a request that has been checked. The answer is given, or the method has taken it along. Throws nothing
  /// but std::bad_alloc, with the answer dropped.
  void run(VObject& request, std::unique_ptr<Answer::Receiver> receiver) const;

 private:
  const Methods methods_;
  const Around around_;
  Journal& journal_;
};

}  // namespace RPC
}  // namespace VORN
