// Errors as an agent meets them: their texts and fields, which catch clause gets what, and the two
// ways out of panic().
#include "ryx/panic.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/base/range.h"
#include "platform/trace/trace.h"
#include "platform/types/eth.h"
#include "tests/slots.h"

namespace {

using std::string;

ryx::ip_addr_mask_t mask(const char* addr, uint8_t length) {
  ryx::ip_addr_t parsed;
  EXPECT_TRUE(ryx::parse_ip_addr(addr, &parsed));
  return ryx::ip_addr_mask_t(parsed, length);
}

// What panic() throws, caught as E.
template <class E>
E raised(const std::function<void()>& raise) {
  try {
    raise();
  } catch (const E& e) {
    return e;
  }
  throw std::logic_error("nothing was raised");
}

template <class E>
E raised(const E& e) {
  return raised<E>([&] { ryx::panic(e); });
}

TEST(Panic, messages) {
  ryx::intf_id_t eth("Ethernet3/1");
  struct {
    const ryx::error& error;
    string message;
  } const table[] = {
      {ryx::invalid_argument_error("x"), "Invalid argument 'x'"},
      {ryx::invalid_argument_error("x", "too odd"), "Invalid argument 'x': too odd"},
      {ryx::invalid_range_error("x", 1, 32),
       "Invalid argument 'x': value is outside its valid range. min_valid = 1, max_valid = 32"},
      {ryx::invalid_range_error("", 0, 4294967295u),
       "Invalid argument '': value is outside its valid range. min_valid = 0, max_valid = "
       "4294967295"},
      {ryx::configuration_error("odd"), "odd"},
      {ryx::unconfigured_agent_error("Peerer"),
       "The agent Peerer has not been configured. Ensure that the agent has been configured to run "
       "from the CLI and that the executable uses the same agent name."},
      {ryx::address_overlap_error(mask("10.1.2.3", 8)),
       "Address 10.1.2.3/8 overlaps with an already configured address"},
      {ryx::address_overlap_error(mask("2001:db8::1", 64)),
       "Address 2001:db8::1/64 overlaps with an already configured address"},
      {ryx::internal_vlan_error(5), "VLAN 5is an internal VLAN and cannot be used on a trunk port"},
      {ryx::invalid_vlan_error(4095), "0 and 4095 are reserved VLAN IDs"},
      {ryx::no_such_interface_error(eth), "No such interface: Ethernet3/1"},
      {ryx::no_such_interface_error(string("Ethernet")), "Bad interface name: Ethernet"},
      {ryx::no_such_interface_error("Ethernet"), "Bad interface name: Ethernet"},
      {ryx::not_switchport_eligible_error(eth),
       "Interface cannot be used as a switchport: Ethernet3/1"},
      {ryx::no_scoped_lock_obtained_error(),
       "ryx::sdk_scoped_lock not grabbed when calling an api while multithreaded"},
      {ryx::unsupported_error("no such chip"), "no such chip"},
      {ryx::unsupported_policy_feature_error(ryx::POLICY_FEATURE_PBR),
       "Unsupported policy feature"},
      {ryx::range_error("T::value > T::max not allowed"), "T::value > T::max not allowed"},
      {ryx::legacy_exception("old"), "old"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(row.message, row.error.what());
    // Each is thrown as what it is, and is caught as an error and as a std::exception all the same.
    try {
      ryx::panic(row.error);
    } catch (const std::exception& e) {
      EXPECT_EQ(typeid(row.error), typeid(e));
      EXPECT_EQ(row.message, e.what());
      EXPECT_NE(dynamic_cast<const ryx::error*>(&e), nullptr);
    }
  }
}

TEST(Panic, fieldsSurviveTheThrow) {
  ryx::intf_id_t eth("Ethernet7");
  EXPECT_EQ("addr", raised(ryx::invalid_argument_error("addr", "odd")).argument_name());
  auto range = raised(ryx::invalid_range_error("dscp", 1, 63));
  EXPECT_EQ("dscp", range.argument_name());
  EXPECT_EQ(1u, range.min_valid());
  EXPECT_EQ(63u, range.max_valid());
  EXPECT_EQ("A", raised(ryx::unconfigured_agent_error("A")).agent_name());
  auto addr = mask("10.0.0.1", 24);
  EXPECT_EQ(addr, raised(ryx::address_overlap_error(addr)).addr());
  EXPECT_EQ(5, raised(ryx::internal_vlan_error(5)).vlan());
  EXPECT_EQ(4095, raised(ryx::invalid_vlan_error(4095)).vlan());
  EXPECT_EQ(eth, raised(ryx::no_such_interface_error(eth)).intf());
  EXPECT_EQ(eth, raised(ryx::no_such_interface_error("Ethernet7")).intf());
  EXPECT_EQ(eth, raised(ryx::not_switchport_eligible_error(eth)).intf());
  EXPECT_EQ(
      ryx::POLICY_FEATURE_QOS,
      raised(ryx::unsupported_policy_feature_error(ryx::POLICY_FEATURE_QOS)).policy_feature());
  // A name that is none gives an error with no interface, and does not raise one of its own.
  const char* nothing = nullptr;
  EXPECT_TRUE(!ryx::no_such_interface_error("Toaster1").intf());
  EXPECT_TRUE(!ryx::no_such_interface_error(nothing).intf());
  EXPECT_TRUE(!raised<ryx::no_such_interface_error>([] { ryx::intf_id_t("Toaster1"); }).intf());
}

TEST(Panic, families) {
  EXPECT_THROW(ryx::panic(ryx::unconfigured_agent_error("A")), ryx::configuration_error);
  EXPECT_THROW(ryx::panic(ryx::address_overlap_error(mask("::1", 128))), ryx::configuration_error);
  EXPECT_THROW(ryx::panic(ryx::internal_vlan_error(5)), ryx::configuration_error);
  EXPECT_THROW(ryx::panic(ryx::invalid_range_error("x", 0, 5)), ryx::invalid_argument_error);
  EXPECT_THROW(ryx::panic(ryx::unsupported_policy_feature_error(ryx::POLICY_FEATURE_PBR)),
               ryx::unsupported_error);
  EXPECT_FALSE((std::is_base_of_v<ryx::configuration_error, ryx::invalid_vlan_error>));
  EXPECT_FALSE((std::is_base_of_v<ryx::invalid_argument_error, ryx::range_error>));
}

// An address without a family has no text, so its error is that one.
TEST(Panic, overlapOfNoAddress) {
  const ryx::ip_addr_mask_t none;
  EXPECT_THROW(ryx::address_overlap_error{none}, ryx::invalid_argument_error);
}

TEST(Panic, formatted) {
  EXPECT_STREQ("error code 3 mounting statehub", raised<ryx::legacy_exception>([] {
                                                   ryx::panic("error code %d mounting statehub", 3);
                                                 }).what());
  string longText(3000, 'x');
  EXPECT_EQ(string(1023, 'x'),
            raised<ryx::legacy_exception>([&] { ryx::panic("%s", longText.c_str()); }).what());
  // A percent sign in an error's own text is text.
  EXPECT_STREQ("100%s", raised(ryx::configuration_error("100%s")).what());
  // A format that cannot be carried out still says which one it was.
  const wchar_t unprintable[] = {0x7fffffff, 0};
  EXPECT_STREQ("name %ls",
               raised<ryx::legacy_exception>([&] { ryx::panic("name %ls", unprintable); }).what());
}

TEST(Panic, rangeErrorsOfThePlatformDoNotPassThroughTheHandler) {
  ryx::exception_handler_is([](const ryx::error&) { FAIL() << "the handler was called"; });
  auto error = raised<ryx::range_error>([] { ryx::platform::VlanId(4095); });
  ryx::exception_handler_is(ryx::throw_exception);
  EXPECT_STREQ("VlanId::value < 1 or > 4094 not allowed", error.what());
}

class worn_fan_error : public ryx::error {
 public:
  explicit worn_fan_error(int fan) : error("worn fan"), fan_(fan) {}
  int fan() const { return fan_; }
  void raise() const override { throw *this; }

 private:
  int fan_;
};

TEST(Panic, errorsOfTheAgentsOwn) {
  EXPECT_EQ(4, raised(worn_fan_error(4)).fan());
}

TEST(Panic, handlerOfTheAgent) {
  static const ryx::error* seen;
  seen = nullptr;
  ryx::exception_handler_is([](const ryx::error& e) {
    seen = &e;
    throw 7;
  });
  ryx::invalid_vlan_error error(0);
  EXPECT_THROW(ryx::panic(error), int);
  ryx::exception_handler_is(ryx::throw_exception);
  EXPECT_EQ(&error, seen);
}

TEST(PanicDeathTest, handlerThatReturns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ryx::exception_handler_is([](const ryx::error&) {});
        ryx::panic(ryx::invalid_argument_error("x"));
      },
      testing::KilledBySignal(SIGABRT), "^Invalid argument 'x'\n$");
  EXPECT_DEATH(ryx::exception_handler_is(nullptr), "exception handler must not be null");
}

TEST(Panic, isTraced) {
  ASSERT_EQ("", ryx::platform::setTraceFromText("RyxSdkPanic/0"));
  testing::internal::CaptureStderr();
  EXPECT_THROW(ryx::panic("fan %d", 3), ryx::legacy_exception);
  string traced = testing::internal::GetCapturedStderr();
  ASSERT_EQ("", ryx::platform::setTraceFromText(""));
  EXPECT_NE(traced.find("RyxSdkPanic/0 panic.cpp:"), string::npos) << traced;
  EXPECT_NE(traced.find("Calling exception_handler: fan 3\n"), string::npos) << traced;
}

TEST(Panic, policyFeaturesPrintTheirNames) {
  std::ostringstream out;
  out << ryx::POLICY_FEATURE_NULL << " " << ryx::POLICY_FEATURE_PBR << " "
      << ryx::POLICY_FEATURE_QOS;
  EXPECT_EQ("POLICY_FEATURE_NULL POLICY_FEATURE_PBR POLICY_FEATURE_QOS", out.str());
}

// The order in the virtual table is part of the binary interface.
TEST(Panic, slots) {
  EXPECT_EQ(2, slot(&ryx::error::what));
  EXPECT_EQ(3, slot(&ryx::error::raise));
}

}  // namespace
