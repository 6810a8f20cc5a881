// SPDX-License-Identifier: MIT
// The order of the members and of the virtual operations: what a program that was built against the
// class relies on, beyond the calls. (The constants: tests/remote/channel-object-test.cpp; every
// use of them shows in the recordings.)
#include <cstring>
#include <type_traits>

#include "tests/conformance/conformance-test.h"

namespace {

using Channel = TevrolDbusRemote;

class Layout : public ConformanceTest {
protected:
    Layout() {
        Construct();
    }
};

TEST_F(Layout, MembersFollowVirtualTableInOrder) {
    const Channel& c = *channel;
    const std::vector<const void*> members = {&c,
                                              &c.m_name,
                                              &c.m_public_dbus_name,
                                              &c.m_partner_dbus_name,
                                              &c.m_object_name,
                                              &c.m_introspection_data,
                                              &c.m_owner_id,
                                              &c.m_reg_obj_id,
                                              &c.m_notification_watch_syn,
                                              &c.m_notification_watch_syn_ack,
                                              &c.m_notification_watch_ack,
                                              &c.m_proxy_watch,
                                              &c.m_proxy,
                                              &c.m_signal_id,
                                              &c.m_handshake,
                                              &c.m_connection,
                                              &c.m_mutex,
                                              &c.m_timerThread,
                                              &c.m_resendHandshake};
    for (std::size_t i = 1; i < members.size(); ++i) {
        EXPECT_LT(members[i - 1], members[i]) << "member " << i;
    }
    EXPECT_EQ(static_cast<const void*>(&c.m_name),
              reinterpret_cast<const char*>(&c) + sizeof(void*));
}

TEST_F(Layout, MembersHaveTheirTypes) {
    testing::StaticAssertTypeEq<decltype(Channel::m_name), std::string>();
    testing::StaticAssertTypeEq<decltype(Channel::m_public_dbus_name), std::string>();
    testing::StaticAssertTypeEq<decltype(Channel::m_partner_dbus_name), std::string>();
    testing::StaticAssertTypeEq<decltype(Channel::m_object_name), std::string>();
    testing::StaticAssertTypeEq<decltype(Channel::m_introspection_data), GDBusNodeInfo*>();
    testing::StaticAssertTypeEq<decltype(Channel::m_owner_id), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_reg_obj_id), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_notification_watch_syn), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_notification_watch_syn_ack), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_notification_watch_ack), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_proxy_watch), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_proxy), GDBusProxy*>();
    testing::StaticAssertTypeEq<decltype(Channel::m_signal_id), guint>();
    testing::StaticAssertTypeEq<decltype(Channel::m_handshake), int>();
    testing::StaticAssertTypeEq<decltype(Channel::m_connection), GDBusConnection*>();
    testing::StaticAssertTypeEq<decltype(Channel::m_mutex), PTMutex>();
    testing::StaticAssertTypeEq<decltype(Channel::m_timerThread), pthread_t>();
    testing::StaticAssertTypeEq<decltype(Channel::m_resendHandshake),
                                std::map<std::string, std::string>>();
}

// The object's virtual table: two entries of the destructor, then the handlers. A pointer to a
// virtual member holds its offset in the table, marked on some processors by its lowest bit.
template <typename Member>
std::size_t Slot(Member member) {
    std::size_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return offset / sizeof(void*);
}

TEST_F(Layout, HandlersFollowDestructorInVirtualTable) {
    EXPECT_EQ(Slot(&Channel::HandleMessage), 2U);
    EXPECT_EQ(Slot(&Channel::HandleNotification), 3U);
    EXPECT_EQ(Slot(&Channel::HandleConnectionReady), 4U);
}

// A pointer to a member that is not virtual holds its address.
TEST_F(Layout, NoOtherOperationIsVirtual) {
    constexpr std::size_t kSlots = 100;
    EXPECT_GT(Slot(&Channel::SendMessage), kSlots);
    using Notify = void (Channel::*)(std::vector<char>&);
    EXPECT_GT(Slot<Notify>(&Channel::SendNotification), kSlots);
    using NotifyPartner = void (Channel::*)(std::vector<char>&, const std::string&);
    EXPECT_GT(Slot<NotifyPartner>(&Channel::SendNotification), kSlots);
    EXPECT_GT(Slot(&Channel::IsConnectionReady), kSlots);
}

TEST_F(Layout, NoCopiesAndNoImplicitConversions) {
    EXPECT_FALSE((std::is_convertible_v<std::string, Channel>));
    EXPECT_FALSE((std::is_convertible_v<PTMutex&, PTAutoLock>));
    EXPECT_FALSE(std::is_copy_constructible_v<Channel>);
    EXPECT_FALSE(std::is_copy_assignable_v<Channel>);
    EXPECT_FALSE(std::is_copy_constructible_v<PTMutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<PTMutex>);
    EXPECT_FALSE(std::is_copy_constructible_v<PTAutoLock>);
    EXPECT_FALSE(std::is_copy_assignable_v<PTAutoLock>);
}

// Calls what stands in the slots, so that the table itself is what is tested.
TEST_F(Layout, VirtualTableCallsHandlers) {
    void* const* table = *reinterpret_cast<void***>(channel.get());
    Record();
    std::vector<char> data = ToBytes("hi");
    using Notify = void (*)(Channel*, std::vector<char>&);
    reinterpret_cast<Notify>(table[3])(channel.get(), data);
    using Ready = void (*)(Channel*, bool, const std::string&);
    reinterpret_cast<Ready>(table[4])(channel.get(), true, ":1.5");
    using Destroy = void (*)(Channel*);
    reinterpret_cast<Destroy>(table[1])(channel.release());  // the deleting one
    Stop();
    ASSERT_GE(world.Events().size(), 4U);
    EXPECT_EQ(world.Events()[0].text, "-> HandleNotification(\"hi\")");
    EXPECT_EQ(world.Events()[1].text, "-> HandleConnectionReady(true, \":1.5\")");
    EXPECT_EQ(world.Events()[2].text, "-> ~StubChannel()");
    EXPECT_EQ(world.Events().back().text, "-> operator delete(channel)");
}

}  // namespace
