// SPDX-License-Identifier: MIT
#include "tevrol/handshake.h"

#include <algorithm>
#include <utility>

namespace tevrol {
namespace {

using Kind = Action::Kind;

// While not ready: the number of repetitions before this end comes back under another name, and the
// attempt whose pause does not grow any more.
constexpr unsigned kRepetitionsUntilRejoin = 6;
constexpr unsigned kLongestPause = 6;

// Once ready. A partner that has said nothing by then gets one ACK more, in case that it is bound
// and was never told; not a second one, because a plain end tells its application each time.
constexpr unsigned kFirstPauseOnceReady = 2;
constexpr unsigned kAttemptWithAck = 4;
constexpr unsigned kLongestPauseOnceReady = 8;

}  // namespace

// ---- Events ----

Actions Handshake::Connected(std::string own_name) {
    m_own_name = std::move(own_name);
    return {};
}

Actions Handshake::Disconnected() {
    Actions actions;
    if (m_own_name.empty()) {
        return actions;  // left for a Rejoin: the pauses go on growing
    }
    if (m_ready) {
        TellLost(actions);
    }
    *this = Handshake();
    actions.push_back({Kind::StopTimer});
    return actions;
}

Actions Handshake::Active(bool active) {
    Actions actions;
    if (m_own_name.empty()) {
        return actions;
    }
    if (!active) {
        StandBy(actions);
    } else if (!m_active) {
        m_active = true;
        Open(actions);
    }
    return actions;
}

Actions Handshake::Released(Stage stage, const std::string& announcer) {
    Actions actions;
    if (!m_active || announcer == m_own_name) {
        return actions;
    }
    if (IsBound() && announcer != m_partner) {
        if (m_watched || stage == Stage::Ack) {
            return actions;
        }
        Unbind(actions);  // most likely gone, and this one takes its place
    }
    if (stage == Stage::Ack) {
        OnAck(actions);
    } else if (!IsBound()) {
        Bind(announcer, stage == Stage::Syn ? Stage::SynAck : Stage::Ack, actions);
    } else if (stage == Stage::Syn) {
        OnPartnersSyn(actions);
    } else {
        Answer(Stage::Ack, actions);
    }
    return actions;
}

Actions Handshake::Announced(Stage stage, bool ok) {
    Actions actions;
    m_announcing.reset();
    if (m_next) {  // something has happened since: the outcome is outdated
        const Stage next = *m_next;
        m_next.reset();
        Announce(next, actions);
        return actions;
    }
    if (!ok || m_answer != Stage::Ack || !m_watched) {
        return actions;
    }
    if (stage == Stage::Ack) {
        m_answer = Stage::SynAck;
        Complete(actions);
    } else if (m_syn_ack_first) {
        m_syn_ack_first = false;
        AnnounceAnswer(actions);
    }
    return actions;
}

Actions Handshake::Watched(const std::string& peer, bool ok) {
    Actions actions;
    if (!IsBound() || peer != m_partner) {
        return actions;
    }
    if (!ok) {
        // Left to the timer: a partner that answered at once would be refused again.
        Unbind(actions);
        return actions;
    }
    m_watched = true;
    m_attempt = 0;
    SetTimer(actions);
    if (m_acknowledged) {
        Complete(actions);
    } else {
        AnnounceAnswer(actions);
    }
    return actions;
}

Actions Handshake::Vanished(const std::string& peer) {
    Actions actions;
    if (IsBound() && peer == m_partner) {
        Unbind(actions);
        m_attempt = 0;
        Open(actions);
    }
    return actions;
}

Actions Handshake::Heard() {
    m_heard = true;
    return {};
}

Actions Handshake::TimedOut() {
    Actions actions;
    if (!m_active) {
        return actions;
    }
    if (IsWaitingForOutcome()) {
        SetTimer(actions);
    } else if (m_ready) {
        RepeatOnceReady(actions);
    } else {
        RepeatUntilReady(actions);
    }
    return actions;
}

// ---- Steps ----

bool Handshake::IsWaitingForOutcome() const {
    return m_announcing.has_value() || (IsBound() && !m_watched);
}

void Handshake::Open(Actions& actions) {
    Announce(Stage::Syn, actions);
    SetTimer(actions);
}

void Handshake::StandBy(Actions& actions) {
    if (IsBound()) {
        Unbind(actions);
    }
    if (m_active) {
        actions.push_back({Kind::StopTimer});
    }
    m_active = false;
    m_attempt = 0;
    m_next.reset();
}

// The announcement waits until the partner is watched: one that is gone already is never answered,
// and one whose loss this end would not hear of neither.
void Handshake::Bind(const std::string& peer, Stage answer, Actions& actions) {
    m_partner = peer;
    m_answer = answer;
    m_syn_ack_first = false;
    m_acknowledged = false;
    m_next.reset();  // a SYN
    actions.push_back({Kind::Watch, Stage::Syn, peer});
}

void Handshake::Unbind(Actions& actions) {
    if (m_ready) {
        TellLost(actions);
    }
    actions.push_back({Kind::Unwatch, Stage::Syn, m_partner});
    m_partner.clear();
    m_watched = false;
    m_ready = false;
    m_begun_anew = false;
}

void Handshake::Answer(Stage stage, Actions& actions) {
    m_answer = stage;
    m_syn_ack_first = false;
    m_acknowledged = false;
    if (m_watched) {
        AnnounceAnswer(actions);
    }
}

void Handshake::AnnounceAnswer(Actions& actions) {
    Announce(m_syn_ack_first ? Stage::SynAck : m_answer, actions);
}

// The application of a ready end is not told yet: a partner that has really begun anew will
// complete the handshake again, and one that just repeats its SYN will not.
//
// A partner that has answered this end's SYN before it announced its own is bound to this end and
// waits for the ACK. One that has begun anew is not, and waits for a SYN_ACK. So it gets both.
void Handshake::OnPartnersSyn(Actions& actions) {
    if (!m_ready && m_answer == Stage::Ack) {
        m_syn_ack_first = true;
        m_acknowledged = false;
        if (m_watched) {
            AnnounceAnswer(actions);
        }
        return;
    }
    Answer(Stage::SynAck, actions);
    if (m_ready) {
        m_begun_anew = true;
        m_heard = false;
        m_attempt = kFirstPauseOnceReady;
        SetTimer(actions);
    }
}

void Handshake::OnAck(Actions& actions) {
    if (m_watched) {
        Complete(actions);
    } else if (IsBound()) {
        m_acknowledged = true;
    }
}

void Handshake::Complete(Actions& actions) {
    if (m_ready && !m_begun_anew) {
        return;
    }
    if (m_ready) {
        TellLost(actions);
    }
    m_ready = true;
    m_begun_anew = false;
    m_heard = false;
    m_attempt = kFirstPauseOnceReady;
    actions.push_back({Kind::TellReady, Stage::Syn, m_partner});
    SetTimer(actions);
}

void Handshake::RepeatUntilReady(Actions& actions) {
    ++m_attempt;
    if (m_attempt % kRepetitionsUntilRejoin == 0) {
        Rejoin(actions);
        return;
    }
    if (IsBound()) {
        AnnounceAnswer(actions);
    } else {
        Announce(Stage::Syn, actions);
    }
    SetTimer(actions);
}

void Handshake::RepeatOnceReady(Actions& actions) {
    if (m_heard) {
        m_heard = false;
        m_attempt = kLongestPauseOnceReady;
    } else {
        m_attempt = std::min(m_attempt + 1, kLongestPauseOnceReady);
        Announce(m_attempt == kAttemptWithAck ? Stage::Ack : m_answer, actions);
    }
    SetTimer(actions);
}

void Handshake::Rejoin(Actions& actions) {
    *this = Handshake();
    m_attempt = kRepetitionsUntilRejoin;
    actions.push_back({Kind::StopTimer});
    actions.push_back({Kind::Rejoin});
}

void Handshake::Announce(Stage stage, Actions& actions) {
    if (m_announcing) {
        m_next = stage;
        return;
    }
    m_announcing = stage;
    actions.push_back({Kind::Announce, stage});
}

void Handshake::SetTimer(Actions& actions) const {
    const unsigned longest = m_ready ? kLongestPauseOnceReady : kLongestPause;
    actions.push_back({Kind::SetTimer, Stage::Syn, {}, std::min(m_attempt, longest)});
}

void Handshake::TellLost(Actions& actions) const {
    actions.push_back({Kind::TellLost, Stage::Syn, m_partner});
}

}  // namespace tevrol
