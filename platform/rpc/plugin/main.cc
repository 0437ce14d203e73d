// Writes FILE.rpc.h for a .proto file with services: method tags, a stub and a service base for each.  The
// text is only declarations and one-line forwards into the templates of client.h and server_impl.h.

#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/compiler/plugin.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/printer.h>
#include <google/protobuf/io/zero_copy_stream.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::io::Printer;
using Variables = std::map<std::string, std::string>;

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string ClassName(const Descriptor& message) {
  std::string name = message.name();
  for (const Descriptor* outer = message.containing_type(); outer != nullptr;
       outer = outer->containing_type()) {
    name = outer->name() + "_" + name;
  }
  const std::string& package = message.file()->package();
  return "::" + (package.empty() ? "" : Replace(package, ".", "::") + "::") + name;
}

const char* KindOf(const MethodDescriptor& method) {
  if (method.client_streaming()) return method.server_streaming() ? "kBidirectional" : "kClientStream";
  return method.server_streaming() ? "kServerStream" : "kUnary";
}

// FNV-1a over what both sides must agree on.
uint64_t Fingerprint(const ServiceDescriptor& service) {
  uint64_t hash = 14695981039346656037ULL;
  const auto add = [&hash](const std::string& text) {
    for (const char c : text + '\n') hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  };
  add(service.full_name());
  for (int i = 0; i < service.method_count(); ++i) {
    const MethodDescriptor& method = *service.method(i);
    add(method.name());
    add(KindOf(method));
    add(method.input_type()->full_name());
    add(method.output_type()->full_name());
  }
  return hash;
}

Variables MethodVariables(const MethodDescriptor& method) {
  return {{"name", method.name()},
          {"index", std::to_string(method.index())},
          {"kind", KindOf(method)},
          {"request", ClassName(*method.input_type())},
          {"response", ClassName(*method.output_type())}};
}

void PrintStub(const ServiceDescriptor& service, Printer& out) {
  out.Print(
      "  class Stub : public ::zem::rpc::StubBase {\n"
      "   public:\n"
      "    using StubBase::StubBase;\n"
      "    static const ::zem::rpc::ServiceInfo& service_info() { return kInfo; }\n");
  for (int i = 0; i < service.method_count(); ++i) {
    const MethodDescriptor& method = *service.method(i);
    const Variables variables = MethodVariables(method);
    out.Print(variables,
              "\n"
              "    static constexpr ::zem::rpc::Method<$request$, $response$,\n"
              "                                        ::zem::rpc::MethodKind::$kind$>\n"
              "        rpcmethod_$name${kInfo, $index$, \"$name$\"};\n");
    if (method.client_streaming()) {
      out.Print(
          variables,
          "    ::zem::rpc::StreamHandle<$request$, $response$> $name$(\n"
          "        const ::zem::rpc::ClientContext& context,\n"
          "        ::zem::rpc::CallObserver<$response$>* observer) {\n"
          "      return ::zem::rpc::client::OpenStream(channel(), rpcmethod_$name$, context, observer);\n"
          "    }\n");
    } else {
      out.Print(
          variables,
          "    ::zem::rpc::CallHandle<$response$> $name$(\n"
          "        const ::zem::rpc::ClientContext& context, const $request$& request,\n"
          "        ::zem::rpc::CallObserver<$response$>* observer) {\n"
          "      return ::zem::rpc::client::Call(channel(), rpcmethod_$name$, context, request, observer);\n"
          "    }\n");
    }
  }
  out.Print("  };\n\n");
}

void PrintService(const ServiceDescriptor& service, Printer& out) {
  out.Print(
      "  class Service : public ::zem::rpc::ServiceBase {\n"
      "   public:\n"
      "    const ::zem::rpc::ServiceInfo& info() const final { return kInfo; }\n\n");
  for (int i = 0; i < service.method_count(); ++i) {
    const MethodDescriptor& method = *service.method(i);
    if (method.client_streaming()) {
      out.Print(MethodVariables(method),
                "    virtual std::unique_ptr<::zem::rpc::RequestObserver<$request$>> $name$(\n"
                "        ::zem::rpc::ServerContext& context,\n"
                "        ::zem::rpc::CallHandle<$response$> call) = 0;\n");
    } else {
      out.Print(MethodVariables(method),
                "    virtual void $name$(\n"
                "        ::zem::rpc::ServerContext& context, const $request$& request,\n"
                "        ::zem::rpc::CallHandle<$response$> call) = 0;\n");
    }
  }
  out.Print(
      "\n"
      "    void Dispatch(uint16_t index, const std::shared_ptr<::zem::rpc::CallState>& call, const char* "
      "data,\n"
      "                  size_t size, bool last) final {\n"
      "      switch (index) {\n");
  for (int i = 0; i < service.method_count(); ++i) {
    const MethodDescriptor& method = *service.method(i);
    Variables variables = MethodVariables(method);
    variables["dispatch"] = method.client_streaming() ? "DispatchStream" : "DispatchOne";
    variables["single"] = method.server_streaming() ? "false" : "true";
    out.Print(variables,
              "        case $index$:\n"
              "          return ::zem::rpc::server::$dispatch$<$single$>(*this, &Service::$name$, call, "
              "data, size, "
              "last);\n");
  }
  out.Print(
      "        default:\n"
      "          return ::zem::rpc::server::RefuseUnknownMethod(call);\n"
      "      }\n"
      "    }\n"
      "  };\n");
}

void PrintFile(const FileDescriptor& file, const std::string& stem, Printer& out) {
  out.Print({{"file", file.name()}, {"stem", stem}},
            "// Made from $file$ by protoc-gen-zemrpc.\n"
            "#pragma once\n\n"
            "#include <cstdint>\n"
            "#include <memory>\n\n"
            "#include \"platform/rpc/client_impl.h\"\n"
            "#include \"platform/rpc/server.h\"\n"
            "#include \"platform/rpc/server_impl.h\"\n"
            "#include \"$stem$.pb.h\"\n\n");
  const std::string space = Replace(file.package(), ".", "::");
  if (!space.empty()) out.Print("namespace $space$ {\n\n", "space", space);
  for (int i = 0; i < file.service_count(); ++i) {
    const ServiceDescriptor& service = *file.service(i);
    char fingerprint[32];
    std::snprintf(fingerprint, sizeof(fingerprint), "0x%016" PRIx64 "ULL", Fingerprint(service));
    out.Print({{"name", service.name()},
               {"full", service.full_name()},
               {"methods", std::to_string(service.method_count())},
               {"fingerprint", fingerprint}},
              "struct $name$ {\n"
              "  static constexpr ::zem::rpc::ServiceInfo kInfo{\"$full$\", $methods$, $fingerprint$};\n\n");
    PrintStub(service, out);
    PrintService(service, out);
    out.Print("};\n\n");
  }
  if (!space.empty()) out.Print("}  // namespace $space$\n", "space", space);
}

class Generator final : public google::protobuf::compiler::CodeGenerator {
 public:
  bool Generate(const FileDescriptor* file, const std::string&,
                google::protobuf::compiler::GeneratorContext* context, std::string* error) const override {
    if (file->service_count() == 0) return true;
    const std::string suffix = ".proto";
    const std::string& name = file->name();
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      *error = name + ": the name does not end in .proto";
      return false;
    }
    const std::string stem = name.substr(0, name.size() - suffix.size());
    std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> stream(context->Open(stem + ".rpc.h"));
    Printer out(stream.get(), '$');
    PrintFile(*file, stem, out);
    return true;
  }

  uint64_t GetSupportedFeatures() const override { return FEATURE_PROTO3_OPTIONAL; }
};

}  // namespace

int main(int argc, char** argv) {
  const Generator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
