// protoc plugin run beside --cpp_out: adds the platform's message helpers to
// every generated message class through protoc's class_scope insertion
// points. Generated classes are final, so the helpers cannot come from a base
// class; writing them into the class keeps the calls the services make
// (Parameters::instantiate(), SetGetStateRequest::messageType(), ...) plain
// static member calls.
//
// For each message M with full protobuf name N:
//   static constexpr uint64_t kMessageType       64-bit FNV-1a of N
//   static uint64_t messageType()                the same, for requests
//   static uint64_t getMessageTypeStatic()       the same, for events
//   static std::unique_ptr<M> instantiate()      a new empty message
//   static std::unique_ptr<M> newOne()           a new empty message
//   static std::unique_ptr<M> newOne(const M&)   a new copy
// The framework computes the same hash at run time from a message's
// descriptor; a test keeps the two in agreement.
#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/compiler/plugin.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/printer.h>
#include <google/protobuf/io/zero_copy_stream.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::compiler::CodeGenerator;
using google::protobuf::compiler::GeneratorContext;

uint64_t Fnv1a64(std::string_view text) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

std::string HeaderName(const FileDescriptor* file) {
  std::string name = file->name();
  const size_t dot = name.rfind(".proto");
  if (dot != std::string::npos) name.resize(dot);
  return name + ".pb.h";
}

class HelperGenerator final : public CodeGenerator {
 public:
  bool Generate(const FileDescriptor* file, const std::string& /*parameter*/, GeneratorContext* context,
                std::string* /*error*/) const override {
    const std::string header = HeaderName(file);
    {
      std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> out(context->OpenForInsert(header, "includes"));
      google::protobuf::io::Printer printer(out.get(), '$');
      printer.Print("#include <cstdint>\n#include <memory>\n");
    }
    for (int i = 0; i < file->message_type_count(); ++i) AddHelpers(file->message_type(i), header, context);
    return true;
  }

  // The helpers do not depend on fields, so proto3 optional is no concern.
  uint64_t GetSupportedFeatures() const override { return FEATURE_PROTO3_OPTIONAL; }

 private:
  static void AddHelpers(const Descriptor* message, const std::string& header, GeneratorContext* context) {
    for (int i = 0; i < message->nested_type_count(); ++i) {
      // Map entries are internal classes without insertion points.
      if (!message->nested_type(i)->options().map_entry()) AddHelpers(message->nested_type(i), header, context);
    }
    std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> out(
        context->OpenForInsert(header, "class_scope:" + message->full_name()));
    google::protobuf::io::Printer printer(out.get(), '$');
    char type[32];
    std::snprintf(type, sizeof type, "0x%016" PRIx64 "ULL", Fnv1a64(message->full_name()));
    printer.Print(
        " public:\n"
        "  // Message type of $full$ on the service link.\n"
        "  static constexpr ::uint64_t kMessageType = $type$;\n"
        "  static ::uint64_t messageType() { return kMessageType; }\n"
        "  static ::uint64_t getMessageTypeStatic() { return kMessageType; }\n"
        "  static std::unique_ptr<$class$> instantiate() { return std::make_unique<$class$>(); }\n"
        "  static std::unique_ptr<$class$> newOne() { return std::make_unique<$class$>(); }\n"
        "  static std::unique_ptr<$class$> newOne(const $class$& from) { return std::make_unique<$class$>(from); }\n",
        "full", message->full_name(), "type", type, "class", ClassName(message));
  }

  // The generated class name: nested messages are Outer_Inner.
  static std::string ClassName(const Descriptor* message) {
    std::string name = message->name();
    for (const Descriptor* outer = message->containing_type(); outer; outer = outer->containing_type())
      name = outer->name() + "_" + name;
    return name;
  }
};

}  // namespace

int main(int argc, char* argv[]) {
  HelperGenerator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
