/* The handshake in every order of events, for SPIN. scripts/model.sh says what is checked.
 *
 * The ends are this one (CLIENT) and its mirror images (PARTNER and, where wanted, SECOND). Both
 * roles run the same code, as a mirror image does. The bus hands each end what the end listens
 * for through a queue of its own, in the order in which it happened; an end takes it out later,
 * whenever its loop comes to it.
 *
 * What is left out, and why nothing is lost by it:
 *  - The acquisition half of a pulse: every end ignores it.
 *  - The death of a process that owns a name: the bus releases the name, so it is heard like an
 *    announcement followed by the loss, and that order of events is in the model.
 *  - Entries that the resend map keeps for a lost partner: the next pass drops them all, and they
 *    do not keep the resend thread alive, so one entry, the latest, stands for the map.
 *
 * An end that heals (HEALS) is a tevrol end: src/tevrol/handshake.h has its rules. What it announces is
 * due at once, but events may come before; what comes later takes its place. Its timer ends when
 * nothing else can happen. It is at rest after a few repetitions; that it would go on for ever adds
 * nothing to a bus that is quiet.
 *
 * A run is finite unless names are held for ever: starts, crashes and refusals are limited. So
 * "in the end" is a state in which nothing can happen any more (OUTCOME), and that every run gets
 * there is proven by the search for cycles.
 *
 * Set from outside: STARTS (of the partner, 1 to this), REFUSALS (announcements that fail),
 * SYN_SPARED (the end whose SYN does not), CLIENT_STARTS, PARTNER_STARTS, LAST_START, SECOND_STARTS
 * (conditions for starting), PARTNER_LEAVES (for good), STRANGER (what another process announces),
 * HEALS (CLIENT, PARTNER or BOTH), HELD (this end's SYN_ACK always fails), IN_ORDER (see step), ALWAYS and OUTCOME (what must hold).
 */

#ifndef STARTS
#define STARTS 1
#endif
#ifndef REFUSALS
#define REFUSALS 0
#endif
#ifndef SYN_SPARED
#define SYN_SPARED ENDS
#endif
#ifndef CLIENT_STARTS
#define CLIENT_STARTS true
#endif
#ifndef PARTNER_STARTS
#define PARTNER_STARTS true
#endif
#ifndef LAST_START
#define LAST_START PARTNER_STARTS
#endif
#ifndef HEALS
#define HEALS NEITHER
#endif

mtype = { NONE, SYN, SYN_ACK, ACK, GONE };    /* stages, states, and what the bus reports */
mtype = { IDLE, RUNNING, FINISHING };         /* the resend thread */

#define CLIENT 0
#define PARTNER 1
#define SECOND 2
#define ENDS 3
#define BOTH 3
#define NEITHER 4
#define NOBODY 0
#define OTHER_PROCESS 9
#define REPETITIONS 3

/* The same steps for both roles. */
typedef End {
  byte name;      /* its unique name; NOBODY while it is not on the bus */
  byte bound;     /* the bound partner's unique name */
  bool absent;    /* the watch has yet to report that the partner was gone when it was bound */
  mtype state;    /* of the handshake; ACK is ready */
  byte told;      /* the partner that the application was told of as ready */
  mtype todo;     /* the announcement that the callback under way has yet to make */
  mtype owed;     /* the announcement to repeat */
  byte owed_to;
  mtype thread;
  mtype answer;   /* what a partner of an end that heals is to hear next */
  byte repeated;  /* how often its timer has ended since something happened */
}
End at[ENDS];
chan inbox[ENDS] = [10] of { mtype, byte };

byte next_name = 1;
byte refusals = REFUSALS;
byte rejoins = 2;                /* that an end that heals may make, at most */
bool ready_taken_back = false;   /* not ready any more without a loss */

#define up(i) (at[i].name != NOBODY)
#define ready(i) (at[i].state == ACK)
#define alive(x) (x == OTHER_PROCESS || at[CLIENT].name == x || at[PARTNER].name == x || at[SECOND].name == x)
#define loss_reported(i) (at[i].absent || inbox[i]??[GONE, eval(at[i].bound)])
#define heals(i) (HEALS == BOTH || HEALS == i)
#define hears(i, j) (up(i) && (i == CLIENT) != (j == CLIENT))

/* Conditions for starting. */
#define this_end_waits (up(CLIENT) && at[CLIENT].todo != SYN)
#define partner_waits (up(PARTNER) && at[PARTNER].todo == NONE)
#define this_end_unbound (up(CLIENT) && at[CLIENT].todo == NONE && at[CLIENT].bound == NOBODY && \
                          !at[CLIENT].absent && empty(inbox[CLIENT]))
#define this_end_idle (this_end_unbound && at[CLIENT].thread == IDLE)
#define this_end_ready ready(CLIENT)

/* What must hold in every state (ALWAYS). */
#define partner_not_ready_with_nobody (!ready(PARTNER) || at[PARTNER].bound != NOBODY && \
                                       (alive(at[PARTNER].bound) || loss_reported(PARTNER)))
#define healing_told_of_the_bound (!heals(PARTNER) || !ready(PARTNER) || \
                                   at[PARTNER].told == at[PARTNER].bound)
#define nobody_bound_not_ready (!ready(CLIENT) || at[CLIENT].bound != NOBODY)
#define never_its_own_partner (!up(CLIENT) || at[CLIENT].bound != at[CLIENT].name)
#define ready_with_the_living (!ready(CLIENT) || alive(at[CLIENT].bound) || loss_reported(CLIENT))
#define bound_to_the_living (at[CLIENT].bound == NOBODY || alive(at[CLIENT].bound))
#define told_of_the_bound (!ready(CLIENT) || at[CLIENT].told == at[CLIENT].bound)
#define ready_until_lost (!ready_taken_back)
#define ready_only_if_bound_there (!ready(CLIENT) || !alive(at[CLIENT].bound) || \
                                   at[PARTNER].name != at[CLIENT].bound || \
                                   at[PARTNER].bound == at[CLIENT].name)
#define one_partner_at_a_time (!ready(PARTNER) || !ready(SECOND))

/* What must hold in the end (OUTCOME). */
#define paired(i) (ready(CLIENT) && ready(i) && at[CLIENT].bound == at[i].name && \
                   at[CLIENT].told == at[i].name && at[i].bound == at[CLIENT].name)
#define both_ready paired(PARTNER)
#define second_found (!up(SECOND) || paired(SECOND))
#define partner_not_ready_alone (!ready(PARTNER) || ready(CLIENT))

/* The bus reports to the end i. */
inline report(i, what, who) {
  assert(nfull(inbox[i]));
  inbox[i]!what, who
}

/* The process `who`, in the role of the end i, releases the name of a stage. */
inline emit(i, stage, who) {
  printf("%d announces %e\n", who, stage);
  k = 0;
  do
  :: k < ENDS ->
     if
     :: hears(k, i) -> report(k, stage, who)
     :: else
     fi;
     k++
  :: else -> break
  od;
  k = 0
}

inline complete(i, partner) {
  at[i].state = ACK;
  at[i].told = partner;
  printf("%d is ready with %d\n", at[i].name, partner)
}

/* One announcement; one that is refused is left to the resend thread, the SYN excepted. */
inline announce(i, stage) {
  if
  :: refusals > 0 && !(stage == SYN && i == SYN_SPARED) ->
     refusals--;
     printf("%d fails to announce %e\n", at[i].name, stage);
     refused(i, stage)
#ifdef HELD
  :: i == CLIENT && stage == SYN_ACK -> refused(i, stage)
  :: !(i == CLIENT && stage == SYN_ACK) ->
#else
  :: true ->
#endif
     emit(i, stage, at[i].name);
     if
     :: stage == ACK -> complete(i, at[i].bound); at[i].answer = SYN_ACK
     :: stage != ACK && heals(i) && ready(i)
     :: stage != ACK && !(heals(i) && ready(i)) ->
        ready_taken_back = ready_taken_back || ready(i) && i == CLIENT;
        at[i].state = stage
     fi
  fi
}

inline refused(i, stage) {
  if
  :: stage != SYN && !heals(i) ->
     at[i].owed = stage;
     at[i].owed_to = at[i].bound;
     if
     :: at[i].thread == IDLE -> at[i].thread = RUNNING
     :: else
     fi
  :: heals(i) && at[i].repeated > 0 -> at[i].repeated--
  :: else
  fi
}

/* A pass of the resend thread. Clearing the record of the thread is another step. */
inline resend(i) {
  if
  :: at[i].owed_to == at[i].bound && at[i].owed == SYN_ACK ->
     at[i].owed = NONE;
     announce(i, SYN_ACK)
  :: at[i].owed_to == at[i].bound && at[i].owed == ACK ->
     at[i].owed = NONE;
     announce(i, ACK)
  :: else -> at[i].owed = NONE
  fi;
  if
  :: at[i].owed == NONE -> at[i].thread = FINISHING
  :: else
  fi
}

inline bind(i, partner, answer) {
  if
  :: at[i].bound == NOBODY ->
     at[i].bound = partner;
     printf("%d binds %d\n", at[i].name, partner);
     if
     :: alive(partner)
#ifdef IN_ORDER
     :: !alive(partner) -> report(i, GONE, partner)
#else
     :: !alive(partner) -> at[i].absent = true
#endif
     fi;
     at[i].todo = answer
  :: else -> printf("%d is bound: drops it\n", at[i].name)
  fi
}

inline lose(i, partner) {
  if
  :: at[i].bound == partner ->
     printf("%d loses %d\n", at[i].name, partner);
     at[i].bound = NOBODY;
     at[i].state = NONE;
     if
     :: heals(i) -> at[i].todo = SYN; at[i].repeated = 0
     :: else
     fi
  :: else
  fi
}

/* An end that heals: a bound partner is answered, too, and an ACK counts from it alone. */
inline heal(i, what, who) {
  if
  :: what == SYN && at[i].bound == NOBODY -> at[i].answer = SYN_ACK; bind(i, who, SYN_ACK)
  :: what == SYN_ACK && at[i].bound == NOBODY -> at[i].answer = ACK; bind(i, who, ACK)
  :: what == SYN && at[i].bound == who -> at[i].answer = SYN_ACK; at[i].todo = SYN_ACK
  :: what == SYN_ACK && at[i].bound == who -> at[i].answer = ACK; at[i].todo = ACK
  :: what == ACK && at[i].bound == who && !ready(i) -> complete(i, who); at[i].repeated = 0
  :: else -> printf("%d drops it\n", at[i].name)
  fi
}

/* Its timer ends: unready, it repeats what is due and at last comes back under another name; ready,
 * it repeats its SYN_ACK, or the ACK that it owes, and announces ACK once. */
inline time_out(i) {
  at[i].repeated++;
  if
  :: ready(i) && at[i].repeated == 2 -> at[i].todo = ACK
  :: ready(i) && at[i].repeated != 2 -> at[i].todo = at[i].answer
  :: !ready(i) && at[i].repeated < REPETITIONS ->
     if
     :: at[i].bound == NOBODY -> at[i].todo = SYN
     :: else -> at[i].todo = at[i].answer
     fi
  :: !ready(i) && at[i].repeated == REPETITIONS ->
     if
     :: rejoins > 0 -> rejoins--; leave(i); join(i)
     :: else
     fi
  fi
}

inline hear(i, what, who) {
  if
  :: what != GONE && who != at[i].name && heals(i) -> heal(i, what, who)
  :: what == GONE -> lose(i, who)
  :: what != GONE && who == at[i].name
  :: what == SYN && who != at[i].name && !heals(i) -> bind(i, who, SYN_ACK)
  :: what == SYN_ACK && who != at[i].name && !heals(i) -> bind(i, who, ACK)
  :: what == ACK && who != at[i].name && !heals(i) ->
     if
     :: at[i].bound != NOBODY -> complete(i, who)
     :: else -> printf("%d is not bound: drops it\n", at[i].name)
     fi
  fi
}

/* Connects, listens, and then has its SYN to announce before it takes anything from its queue. */
inline join(i) {
  at[i].name = next_name;
  next_name++;
  at[i].state = SYN;
  at[i].todo = SYN;
  at[i].owed = NONE;
  at[i].thread = IDLE;
  at[i].answer = SYN_ACK;
  at[i].repeated = 0;
  printf("%d starts\n", at[i].name)
}

/* Ends without a word; the bus tells those who watch its unique name. */
inline leave(i) {
  printf("%d ends\n", at[i].name);
  k = 0;
  do
  :: k < ENDS ->
     if
     :: at[k].bound == at[i].name -> report(k, GONE, at[i].name)
     :: else
     fi;
     k++
  :: else -> break
  od;
  k = 0;
  do
  :: inbox[i]?_, _
  :: empty(inbox[i]) -> break
  od;
  at[i].name = NOBODY;
  at[i].bound = NOBODY;
  at[i].absent = false;
  at[i].state = NONE;
  at[i].told = NOBODY;
  at[i].todo = NONE;
  at[i].owed = NONE;
  at[i].owed_to = NOBODY;
  at[i].thread = IDLE;
  at[i].answer = NONE;
  at[i].repeated = 0
}

/* One step of an end. While a callback has an announcement to make, it holds the lock, so neither
 * another callback nor the resend thread runs. That a partner was gone when it was bound is no
 * signal but the answer to the watch's question, which might be overtaken: so it is proven that this
 * does no harm. With IN_ORDER it takes its place in the queue, as GIO does it. */
inline step(i) {
  if
  :: atomic { at[i].todo == SYN -> at[i].todo = NONE; announce(i, SYN) }
  :: atomic { at[i].todo == SYN_ACK -> at[i].todo = NONE; announce(i, SYN_ACK) }
  :: atomic { at[i].todo == ACK -> at[i].todo = NONE; announce(i, ACK) }
  :: atomic { (at[i].todo == NONE || heals(i)) && nempty(inbox[i]) -> inbox[i]?what, who; hear(i, what, who);
              what = NONE; who = NOBODY }
  :: atomic { at[i].todo == NONE && at[i].absent -> at[i].absent = false; lose(i, at[i].bound) }
  :: atomic { at[i].todo == NONE && at[i].thread == RUNNING -> resend(i) }
  :: atomic { at[i].todo == NONE && at[i].thread == FINISHING -> at[i].thread = IDLE }
  fi
}

active proctype ThisEnd() {
  byte k;
  mtype what = NONE;
  byte who;

  atomic { CLIENT_STARTS -> join(CLIENT) }
end:
  do
  :: step(CLIENT)
  od
}

/* Starts, is ended at any moment and starts again; the last one stays, or is ended for good. */
active proctype Partner() {
  byte k;
  mtype what = NONE;
  byte who;
  byte starts = STARTS;

  do
  :: starts > 1 -> starts--
  :: break
  od;
end:
  do
  :: atomic { !up(PARTNER) && starts > 1 && PARTNER_STARTS -> starts--; join(PARTNER) }
  :: atomic { !up(PARTNER) && starts == 1 && LAST_START -> starts--; join(PARTNER) }
  :: atomic { up(PARTNER) && starts > 0 -> leave(PARTNER) }
#ifdef PARTNER_LEAVES
  :: atomic { up(PARTNER) && starts == 0 -> leave(PARTNER) }
#endif
  :: step(PARTNER)
  od
}

#ifdef SECOND_STARTS
active proctype SecondPartner() {
  byte k;
  mtype what = NONE;
  byte who;

end:
  atomic { SECOND_STARTS -> join(SECOND) }
end_running:
  do
  :: step(SECOND)
  od
}
#endif

/* Releases a name that is not its own, once: another process does, or something else in this end's
 * process, on the same connection. */
#ifdef STRANGER
active proctype Stranger() {
  byte k;

end:
  if
  :: atomic { STRANGER == SYN_ACK && up(CLIENT) -> emit(CLIENT, SYN_ACK, OTHER_PROCESS) }
  :: atomic { STRANGER == ACK && up(CLIENT) -> emit(PARTNER, ACK, OTHER_PROCESS) }
  :: atomic { STRANGER == SYN && up(CLIENT) -> emit(PARTNER, SYN, at[CLIENT].name) }
  :: atomic { STRANGER == SYN && up(CLIENT) -> emit(PARTNER, SYN_ACK, at[CLIENT].name) }
  :: atomic { STRANGER == SYN && up(CLIENT) -> emit(PARTNER, ACK, at[CLIENT].name) }
  fi
}
#endif

/* What is asked fails as assert(false) and so differs from a full inbox. */
#ifdef ALWAYS
active proctype Always() {
end:
  atomic { !(ALWAYS) -> assert(false) }
}
#endif

#define may_time_out(i) (heals(i) && up(i) && at[i].repeated < REPETITIONS)
#define timers_at_rest (!may_time_out(CLIENT) && !may_time_out(PARTNER))

active proctype Timers() {
  byte k;

end:
  do
  :: atomic { timeout && may_time_out(CLIENT) -> time_out(CLIENT) }
  :: atomic { timeout && may_time_out(PARTNER) -> time_out(PARTNER) }
  od
}

#ifdef OUTCOME
active proctype Outcome() {
  atomic {
    timeout && timers_at_rest ->
    if
    :: OUTCOME
    :: else -> assert(false)
    fi
  }
}
#endif

#ifdef HELD
ltl ready_some_day { <> (both_ready) }
#endif
