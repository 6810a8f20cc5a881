// SPDX-License-Identifier: MIT
// The rules of the handshake, one by one. This end is ":1.1" and its partner ":1.2".
#include "tevrol/handshake.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace tevrol {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const std::string kPartner = ":1.2";
const std::string kOther = ":1.3";

const char* NameOf(Stage stage) {
    static const std::array<const char*, 3> names = {"SYN", "SYN_ACK", "ACK"};
    return names.at(static_cast<std::size_t>(stage));
}

std::string TextOf(const Action& action) {
    switch (action.kind) {
        case Action::Kind::Announce:
            return std::string("announce ") + NameOf(action.stage);
        case Action::Kind::Watch:
            return "watch " + action.peer;
        case Action::Kind::Unwatch:
            return "unwatch " + action.peer;
        case Action::Kind::SetTimer:
            return "timer " + std::to_string(action.attempt);
        case Action::Kind::StopTimer:
            return "stop timer";
        case Action::Kind::TellReady:
            return "ready " + action.peer;
        case Action::Kind::TellLost:
            return "lost " + action.peer;
        case Action::Kind::Rejoin:
            return "rejoin";
    }
    return {};
}

std::vector<std::string> Texts(const Actions& actions) {
    std::vector<std::string> texts;
    for (const Action& action : actions) {
        texts.push_back(TextOf(action));
    }
    return texts;
}

class HandshakeTest : public testing::Test {
protected:
    // An end that has announced its SYN and heard nothing yet.
    void Open() {
        end.Connected(":1.1");
        end.Active(true);
        end.Announced(Stage::Syn, true);
    }

    // An end that has answered the partner's SYN.
    void AnswerSyn() {
        Open();
        end.Released(Stage::Syn, kPartner);
        end.Watched(kPartner, true);
        end.Announced(Stage::SynAck, true);
    }

    // An end that is about to announce the ACK that the partner waits for.
    void AnswerSynAck() {
        Open();
        end.Released(Stage::SynAck, kPartner);
        end.Watched(kPartner, true);
    }

    void GetReady() {
        AnswerSyn();
        end.Released(Stage::Ack, kPartner);
        ASSERT_TRUE(end.IsReady());
    }

    // What it does on the next timeout, its announcement having succeeded.
    std::vector<std::string> TimeOut() {
        const Actions actions = end.TimedOut();
        for (const Action& action : actions) {
            if (action.kind == Action::Kind::Announce) {
                end.Announced(action.stage, true);
            }
        }
        return Texts(actions);
    }

    // Whether it leaves for a rejoin, sooner or later.
    bool Rejoins() {
        for (int timeout = 0; timeout < 20; ++timeout) {
            if (TimeOut().back() == "rejoin") {
                return true;
            }
        }
        return false;
    }

    Handshake end;
};

// ---- Joining ----

TEST_F(HandshakeTest, AnnouncesSynOnceItIsActive) {
    EXPECT_THAT(Texts(end.Connected(":1.1")), IsEmpty());
    EXPECT_THAT(Texts(end.Active(true)), ElementsAre("announce SYN", "timer 0"));
    EXPECT_FALSE(end.IsReady());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, IsActiveOnce) {
    Open();
    EXPECT_THAT(Texts(end.Active(true)), IsEmpty());
}

TEST_F(HandshakeTest, IsNotActiveWithoutAConnection) {
    EXPECT_THAT(Texts(end.Active(true)), IsEmpty());
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), IsEmpty());
}

TEST_F(HandshakeTest, StandbyNeitherAnnouncesNorBinds) {
    end.Connected(":1.1");
    EXPECT_THAT(Texts(end.Active(false)), IsEmpty());
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), IsEmpty());
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kPartner)), IsEmpty());
    EXPECT_THAT(Texts(end.TimedOut()), IsEmpty());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, StandbyTakesOverWithASyn) {
    end.Connected(":1.1");
    end.Active(false);
    EXPECT_THAT(Texts(end.Active(true)), ElementsAre("announce SYN", "timer 0"));
}

TEST_F(HandshakeTest, EndThatHasToStandByLetsItsPartnerGo) {
    GetReady();
    EXPECT_THAT(Texts(end.Active(false)),
                ElementsAre("lost " + kPartner, "unwatch " + kPartner, "stop timer"));
    EXPECT_FALSE(end.IsReady());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, EndThatHasToStandByAnnouncesNothingMore) {
    AnswerSyn();
    end.TimedOut();                         // SYN_ACK is under way
    end.Released(Stage::SynAck, kPartner);  // ACK waits
    end.Active(false);
    EXPECT_THAT(Texts(end.Announced(Stage::SynAck, true)), IsEmpty());
}

// ---- Becoming ready ----

TEST_F(HandshakeTest, AnswersASynWithSynAckAndIsReadyOnTheAck) {
    Open();
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), ElementsAre("watch " + kPartner));
    EXPECT_EQ(end.Partner(), kPartner);
    EXPECT_THAT(Texts(end.Watched(kPartner, true)), ElementsAre("timer 0", "announce SYN_ACK"));
    EXPECT_THAT(Texts(end.Announced(Stage::SynAck, true)), IsEmpty());
    EXPECT_FALSE(end.IsReady());
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)),
                ElementsAre("ready " + kPartner, "timer 2"));
    EXPECT_TRUE(end.IsReady());
}

TEST_F(HandshakeTest, AnswersASynAckWithAckAndIsReadyOnceThatIsAnnounced) {
    Open();
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kPartner)), ElementsAre("watch " + kPartner));
    EXPECT_THAT(Texts(end.Watched(kPartner, true)), ElementsAre("timer 0", "announce ACK"));
    EXPECT_FALSE(end.IsReady());
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)),
                ElementsAre("ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, CrossedSynAcksAreAnsweredByAck) {
    AnswerSyn();
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kPartner)), ElementsAre("announce ACK"));
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)),
                ElementsAre("ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, OwnReleasesAreIgnored) {
    Open();
    EXPECT_THAT(Texts(end.Released(Stage::Syn, ":1.1")), IsEmpty());
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, ":1.1")), IsEmpty());
}

TEST_F(HandshakeTest, AckOfAnotherProcessIsIgnored) {
    AnswerSyn();
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kOther)), IsEmpty());
    EXPECT_FALSE(end.IsReady());
}

TEST_F(HandshakeTest, AckWhileNobodyIsBoundIsIgnored) {
    Open();
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)), IsEmpty());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, AnotherProcessDoesNotReplaceTheBoundOne) {
    AnswerSyn();
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kOther)), IsEmpty());
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kOther)), IsEmpty());
    EXPECT_EQ(end.Partner(), kPartner);
}

TEST_F(HandshakeTest, AnotherProcessReplacesOneThatIsNotWatchedYet) {
    Open();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kOther)),
                ElementsAre("unwatch " + kPartner, "watch " + kOther));
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)), IsEmpty());
    EXPECT_EQ(end.Partner(), kOther);
}

TEST_F(HandshakeTest, SecondAckChangesNothing) {
    GetReady();
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)), IsEmpty());
}

TEST_F(HandshakeTest, AckThatComesBeforeTheWatchIsGrantedCounts) {
    Open();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)), IsEmpty());
    EXPECT_THAT(Texts(end.Watched(kPartner, true)),
                ElementsAre("timer 0", "ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, SynAfterAnEarlyAckMakesItVoid) {
    Open();
    end.Released(Stage::Syn, kPartner);
    end.Released(Stage::Ack, kPartner);
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Watched(kPartner, true)), ElementsAre("timer 0", "announce SYN_ACK"));
}

TEST_F(HandshakeTest, EarlyAckOfAProcessThatWasReplacedIsForgotten) {
    Open();
    end.Released(Stage::Syn, kPartner);
    end.Released(Stage::Ack, kPartner);
    end.Released(Stage::Syn, kOther);
    EXPECT_THAT(Texts(end.Watched(kOther, true)), ElementsAre("timer 0", "announce SYN_ACK"));
}

// ---- Watching ----

TEST_F(HandshakeTest, PartnerThatIsGoneWhenItIsBoundIsNeitherAnsweredNorTold) {
    Open();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Vanished(kPartner)),
                ElementsAre("unwatch " + kPartner, "announce SYN", "timer 0"));
}

TEST_F(HandshakeTest, RefusedMatchUnbindsAndLeavesTheRestToTheTimer) {
    Open();
    TimeOut();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Watched(kPartner, false)), ElementsAre("unwatch " + kPartner));
    EXPECT_EQ(end.Partner(), "");
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 2"));
}

TEST_F(HandshakeTest, OutcomeOfAnotherWatchIsIgnored) {
    Open();
    EXPECT_THAT(Texts(end.Watched("", true)), IsEmpty());
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Watched(kOther, true)), IsEmpty());
}

// ---- Losing ----

TEST_F(HandshakeTest, LossIsToldAndSynAnnouncedAtOnce) {
    GetReady();
    EXPECT_THAT(Texts(end.Vanished(kPartner)),
                ElementsAre("lost " + kPartner, "unwatch " + kPartner, "announce SYN", "timer 0"));
    EXPECT_FALSE(end.IsReady());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, LossOfAPartnerThatWasNotReadyIsNotTold) {
    AnswerSyn();
    EXPECT_THAT(Texts(end.Vanished(kPartner)),
                ElementsAre("unwatch " + kPartner, "announce SYN", "timer 0"));
}

TEST_F(HandshakeTest, LossOfAnotherProcessIsIgnored) {
    GetReady();
    EXPECT_THAT(Texts(end.Vanished(kOther)), IsEmpty());
    Handshake unbound;
    EXPECT_THAT(Texts(unbound.Vanished("")), IsEmpty());
}

TEST_F(HandshakeTest, LossOfTheBusIsALoss) {
    GetReady();
    EXPECT_THAT(Texts(end.Disconnected()), ElementsAre("lost " + kPartner, "stop timer"));
    EXPECT_FALSE(end.IsReady());
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), IsEmpty());
    end.Connected(":1.1");
    EXPECT_THAT(Texts(end.Active(true)), ElementsAre("announce SYN", "timer 0"));
}

TEST_F(HandshakeTest, LossOfTheBusWithoutAPartnerIsNotTold) {
    Open();
    EXPECT_THAT(Texts(end.Disconnected()), ElementsAre("stop timer"));
}

// ---- A partner that begins anew on the same connection ----

TEST_F(HandshakeTest, PartnerThatBeginsAnewIsToldLostAndReadyOnItsAck) {
    GetReady();
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)),
                ElementsAre("announce SYN_ACK", "timer 2"));
    EXPECT_TRUE(end.IsReady());
    end.Announced(Stage::SynAck, true);
    EXPECT_THAT(Texts(end.Released(Stage::Ack, kPartner)),
                ElementsAre("lost " + kPartner, "ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, PartnerThatBeginsAnewIsToldLostAndReadyOnTheAckForItsSynAck) {
    GetReady();
    end.Released(Stage::Syn, kPartner);
    end.Announced(Stage::SynAck, true);
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kPartner)), ElementsAre("announce ACK"));
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)),
                ElementsAre("lost " + kPartner, "ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, PartnerThatJustRepeatsItsSynIsNotTold) {
    GetReady();
    end.Released(Stage::Syn, kPartner);
    end.Announced(Stage::SynAck, true);
    for (int timeout = 0; timeout < 10; ++timeout) {
        EXPECT_THAT(TimeOut(), Not(Contains(testing::StartsWith("lost"))));
    }
    EXPECT_TRUE(end.IsReady());
}

TEST_F(HandshakeTest, PartnerThatWasHeardBeforeItBeganAnewIsNotProven) {
    GetReady();
    end.Heard();
    end.Released(Stage::Syn, kPartner);
    end.Announced(Stage::SynAck, true);
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 3"));
}

TEST_F(HandshakeTest, PartnerThatBeginsAnewBeforeTheAckIsAnsweredAnew) {
    AnswerSynAck();
    EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), IsEmpty());
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)), ElementsAre("announce SYN_ACK"));
    EXPECT_FALSE(end.IsReady());
}

// ---- Repeating ----

TEST_F(HandshakeTest, SynIsRepeatedAtGrowingPausesUntilTheEndComesBackUnderAnotherName) {
    Open();
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 1"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 2"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 3"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 4"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 5"));
    EXPECT_THAT(TimeOut(), ElementsAre("stop timer", "rejoin"));
}

TEST_F(HandshakeTest, PausesStayLongAfterARejoinAndTheNextOneComes) {
    Open();
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(Rejoins());
        EXPECT_THAT(Texts(end.Released(Stage::Syn, kPartner)), IsEmpty());
        EXPECT_THAT(Texts(end.Disconnected()), IsEmpty());
        end.Connected(":1.4");
        EXPECT_THAT(Texts(end.Active(true)), ElementsAre("announce SYN", "timer 6"));
        end.Announced(Stage::Syn, true);
        for (int timeout = 0; timeout < 5; ++timeout) {
            EXPECT_THAT(TimeOut(), ElementsAre("announce SYN", "timer 6"));
        }
    }
}

TEST_F(HandshakeTest, PausesAreShortAgainWithAPartner) {
    Open();
    TimeOut();
    TimeOut();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Watched(kPartner, true)), ElementsAre("timer 0", "announce SYN_ACK"));
}

TEST_F(HandshakeTest, PausesAreShortForAStandbyThatTakesOver) {
    Open();
    TimeOut();
    end.Active(false);
    EXPECT_THAT(Texts(end.Active(true)), ElementsAre("announce SYN", "timer 0"));
}

TEST_F(HandshakeTest, BoundEndRepeatsSynAck) {
    AnswerSyn();
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 1"));
}

TEST_F(HandshakeTest, BoundEndThatStaysUnansweredComesBackUnderAnotherName) {
    AnswerSyn();
    EXPECT_TRUE(Rejoins());
    EXPECT_EQ(end.Partner(), "");
}

TEST_F(HandshakeTest, RefusedAckIsRepeatedAndDoesNotMakeReady) {
    AnswerSynAck();
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, false)), IsEmpty());
    EXPECT_FALSE(end.IsReady());
    EXPECT_THAT(Texts(end.TimedOut()), ElementsAre("announce ACK", "timer 1"));
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)),
                ElementsAre("ready " + kPartner, "timer 2"));
}

TEST_F(HandshakeTest, TimerWaitsForTheOutcomeOfAnAnnouncement) {
    end.Connected(":1.1");
    end.Active(true);
    EXPECT_THAT(Texts(end.TimedOut()), ElementsAre("timer 0"));
}

TEST_F(HandshakeTest, TimerWaitsForTheOutcomeOfAWatch) {
    Open();
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.TimedOut()), ElementsAre("timer 0"));
}

TEST_F(HandshakeTest, ReadyEndRepeatsSynAckAndOnceAck) {
    GetReady();
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 3"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce ACK", "timer 4"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 5"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 6"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 7"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 8"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 8"));
    EXPECT_TRUE(end.IsReady());
}

TEST_F(HandshakeTest, ReadyEndThatHasHeardItsPartnerSaysNothing) {
    GetReady();
    EXPECT_THAT(Texts(end.Heard()), IsEmpty());
    EXPECT_THAT(TimeOut(), ElementsAre("timer 8"));
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 8"));
}

TEST_F(HandshakeTest, WhatWasHeardBeforeReadyProvesNothing) {
    AnswerSyn();
    end.Heard();
    end.Released(Stage::Ack, kPartner);
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 3"));
}

TEST_F(HandshakeTest, ReadyEndAnswersASynAckWithAck) {
    GetReady();
    EXPECT_THAT(Texts(end.Released(Stage::SynAck, kPartner)), ElementsAre("announce ACK"));
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)), IsEmpty());
    EXPECT_THAT(TimeOut(), ElementsAre("announce SYN_ACK", "timer 3"));
}

TEST_F(HandshakeTest, ReadyEndRepeatsTheAckThatItOwes) {
    GetReady();
    end.Released(Stage::SynAck, kPartner);
    end.Announced(Stage::Ack, false);
    EXPECT_THAT(TimeOut(), ElementsAre("announce ACK", "timer 3"));
}

// ---- One announcement at a time ----

TEST_F(HandshakeTest, AnnouncementWaitsForTheOneUnderWay) {
    end.Connected(":1.1");
    end.Active(true);
    end.Released(Stage::Syn, kPartner);
    EXPECT_THAT(Texts(end.Watched(kPartner, true)), ElementsAre("timer 0"));
    EXPECT_THAT(Texts(end.Announced(Stage::Syn, true)), ElementsAre("announce SYN_ACK"));
    EXPECT_THAT(Texts(end.Announced(Stage::SynAck, true)), IsEmpty());
}

TEST_F(HandshakeTest, LaterAnnouncementTakesThePlaceOfOneThatWaits) {
    end.Connected(":1.1");
    end.Active(true);
    end.Released(Stage::Syn, kPartner);
    end.Watched(kPartner, true);
    end.Released(Stage::SynAck, kPartner);
    EXPECT_THAT(Texts(end.Announced(Stage::Syn, true)), ElementsAre("announce ACK"));
}

TEST_F(HandshakeTest, SynThatWaitsIsDroppedOnceAPartnerIsBound) {
    AnswerSyn();
    end.TimedOut();          // SYN_ACK is under way
    end.Vanished(kPartner);  // SYN waits
    end.Released(Stage::Syn, kOther);
    EXPECT_THAT(Texts(end.Announced(Stage::SynAck, true)), IsEmpty());
}

TEST_F(HandshakeTest, AckForAPartnerThatIsGoneDoesNotMakeReady) {
    AnswerSynAck();
    end.Vanished(kPartner);
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)), ElementsAre("announce SYN"));
    EXPECT_FALSE(end.IsReady());
}

TEST_F(HandshakeTest, AckForAPartnerThatIsGoneDoesNotMakeReadyWithTheNext) {
    AnswerSynAck();
    end.Vanished(kPartner);
    end.Released(Stage::SynAck, kOther);
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)), IsEmpty());
    EXPECT_FALSE(end.IsReady());
}

TEST_F(HandshakeTest, AckThatIsRepeatedToAPartnerThatBeganAnewDoesNotTellALoss) {
    GetReady();
    end.Released(Stage::Syn, kPartner);
    end.Announced(Stage::SynAck, true);
    TimeOut();
    EXPECT_THAT(Texts(end.TimedOut()), ElementsAre("announce ACK", "timer 4"));
    EXPECT_THAT(Texts(end.Announced(Stage::Ack, true)), IsEmpty());
}

}  // namespace
}  // namespace tevrol
