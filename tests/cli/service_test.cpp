// The typed operation registry and its result record.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "cli/command_service.h"

namespace {

using Service = std::unique_ptr<vxcli_command_service, void (*)(vxcli_command_service*)>;

Service make_service() {
  return Service(vxcli_command_service_create(), vxcli_command_service_destroy);
}

const vxcli_service_result_value* value(const vxcli_service_result& result, const char* name) {
  for (uint32_t i = 0; i < result.value_count; i++)
    if (std::string(result.values[i].name) == name) return &result.values[i];
  return nullptr;
}

int echo_handler(void* context, const vxcli_service_request* request,
                 vxcli_service_result* result) {
  vxcli_service_result_ok(result);
  const char* text = vxcli_service_value(request, "text");
  vxcli_service_result_string(result, "echo", text ? text : "");
  vxcli_service_result_uint64(result, "tag", reinterpret_cast<uintptr_t>(context));
  return 0;
}

int failing_handler(void*, const vxcli_service_request*, vxcli_service_result* result) {
  vxcli_service_result_error(result, 503, "", nullptr, true);
  return -1;
}

TEST(CommandService, VersionIsRegisteredOnCreate) {
  Service service = make_service();
  ASSERT_NE(service, nullptr);
  EXPECT_TRUE(vxcli_command_service_has_handler(service.get(), "version"));
  vxcli_service_request request{"version", nullptr, 0, 0};
  vxcli_service_result result;
  ASSERT_EQ(vxcli_command_service_invoke(service.get(), &request, &result), 0);
  EXPECT_EQ(result.ok, 1u);
  EXPECT_EQ(result.status, 200);
  ASSERT_EQ(result.value_count, 3u);
  ASSERT_NE(value(result, "product_version"), nullptr);
  EXPECT_STREQ(value(result, "product_version")->text, "1.2.1");
  EXPECT_EQ(value(result, "product_version")->type, VXCLI_SERVICE_VALUE_STRING);
  EXPECT_STREQ(value(result, "build_number")->text, "24");
  EXPECT_EQ(strlen(value(result, "git_commit")->text), 12u);
}

TEST(CommandService, InvokeFailures) {
  Service service = make_service();
  vxcli_service_result result;
  result.value_count = 9;  // stale content is cleared first
  EXPECT_EQ(vxcli_command_service_invoke(service.get(), nullptr, &result), -1);
  EXPECT_EQ(result.status, 400);
  EXPECT_STREQ(result.code, "invalid_request");
  EXPECT_STREQ(result.message, "missing structured operation request");
  EXPECT_EQ(result.value_count, 0u);
  vxcli_service_request empty{"", nullptr, 0, 0};
  EXPECT_EQ(vxcli_command_service_invoke(service.get(), &empty, &result), -1);
  EXPECT_EQ(result.status, 400);
  vxcli_service_request unknown{"message.send", nullptr, 0, 0};
  EXPECT_EQ(vxcli_command_service_invoke(service.get(), &unknown, &result), -1);
  EXPECT_EQ(result.status, 404);
  EXPECT_STREQ(result.code, "operation_not_migrated");
  EXPECT_STREQ(result.message, "operation has no typed handler");
  EXPECT_EQ(result.ok, 0u);

  // A handler's own failure is passed on; empty texts get the defaults.
  ASSERT_EQ(vxcli_command_service_register(service.get(), "route.add", failing_handler, nullptr),
            0);
  vxcli_service_request route{"route.add", nullptr, 0, 0};
  EXPECT_EQ(vxcli_command_service_invoke(service.get(), &route, &result), -1);
  EXPECT_EQ(result.status, 503);
  EXPECT_STREQ(result.code, "operation_failed");
  EXPECT_STREQ(result.message, "operation failed");
  EXPECT_EQ(result.retryable, 1u);
}

TEST(CommandService, RegistrationRules) {
  Service service = make_service();
  int first = 1, second = 2;
  EXPECT_EQ(vxcli_command_service_register(service.get(), "", echo_handler, nullptr), -1);
  EXPECT_EQ(vxcli_command_service_register(service.get(), nullptr, echo_handler, nullptr), -1);
  EXPECT_EQ(vxcli_command_service_register(service.get(), "x", nullptr, nullptr), -1);
  EXPECT_EQ(vxcli_command_service_register(service.get(), std::string(96, 'a').c_str(),
                                           echo_handler, nullptr),
            -1);
  EXPECT_EQ(vxcli_command_service_register(service.get(), std::string(95, 'a').c_str(),
                                           echo_handler, nullptr),
            0);

  // Re-registering replaces handler and context.
  ASSERT_EQ(vxcli_command_service_register(service.get(), "echo", echo_handler, &first), 0);
  ASSERT_EQ(vxcli_command_service_register(service.get(), "echo", echo_handler, &second), 0);
  vxcli_service_param params[] = {{"text", "one"}, {"text", "two"}, {"other", "x"}};
  vxcli_service_request request{"echo", params, 3, 0};
  vxcli_service_result result;
  ASSERT_EQ(vxcli_command_service_invoke(service.get(), &request, &result), 0);
  EXPECT_STREQ(value(result, "echo")->text, "one");  // first exact match
  EXPECT_EQ(value(result, "tag")->number, reinterpret_cast<uintptr_t>(&second));

  // 128 ids in all (version and the two above count); replacing still works when full.
  int registered = 3;
  for (int i = 0; registered < 128; i++, registered++)
    ASSERT_EQ(vxcli_command_service_register(service.get(), ("op." + std::to_string(i)).c_str(),
                                             echo_handler, nullptr),
              0);
  EXPECT_EQ(vxcli_command_service_register(service.get(), "one.too.many", echo_handler, nullptr),
            -1);
  EXPECT_FALSE(vxcli_command_service_has_handler(service.get(), "one.too.many"));
  EXPECT_EQ(vxcli_command_service_register(service.get(), "echo", echo_handler, &first), 0);
}

TEST(ServiceResult, ValuesAreBoundedNotCut) {
  vxcli_service_result result;
  vxcli_service_result_ok(&result);
  EXPECT_EQ(vxcli_service_result_bool(&result, "flag", true), 0);
  EXPECT_EQ(result.values[0].type, VXCLI_SERVICE_VALUE_BOOL);
  EXPECT_EQ(result.values[0].boolean, 1u);
  EXPECT_EQ(vxcli_service_result_uint64(&result, "big", UINT64_MAX), 0);
  EXPECT_EQ(result.values[1].number, UINT64_MAX);
  EXPECT_EQ(vxcli_service_result_string(&result, std::string(48, 'n').c_str(), "v"), -1);
  EXPECT_EQ(vxcli_service_result_string(&result, std::string(47, 'n').c_str(), "v"), 0);
  EXPECT_EQ(vxcli_service_result_string(&result, "long", std::string(256, 't').c_str()), -1);
  EXPECT_EQ(vxcli_service_result_string(&result, "long", std::string(255, 't').c_str()), 0);
  EXPECT_EQ(vxcli_service_result_string(&result, "", "v"), -1);
  EXPECT_EQ(result.value_count, 4u);
  while (result.value_count < 64)
    ASSERT_EQ(vxcli_service_result_bool(&result, "fill", false), 0);
  EXPECT_EQ(vxcli_service_result_bool(&result, "65th", false), -1);
  EXPECT_EQ(result.value_count, 64u);

  vxcli_service_result_error(&result, 500, "result_capacity", "too much", false);
  EXPECT_EQ(result.ok, 0u);
  EXPECT_STREQ(result.code, "result_capacity");
  vxcli_service_result_ok(&result);
  EXPECT_EQ(result.value_count, 0u);
  EXPECT_EQ(result.status, 200);
  EXPECT_STREQ(result.code, "");

  vxcli_service_request request{"x", nullptr, 0, 0};
  EXPECT_EQ(vxcli_service_value(&request, "text"), nullptr);
  EXPECT_EQ(vxcli_service_value(nullptr, "text"), nullptr);
}

}  // namespace
