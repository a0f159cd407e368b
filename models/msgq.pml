/* SPDX-License-Identifier: Apache-2.0 */
/* The wake-ups of a message queue, and its deletion by whoever received the last message while a sender may still
   be waking somebody. Stands for msgQSend(), msgQReceive() and msgQDelete() of lib/utils/msgq.cpp and for
   counted_wait(), unlock_and_wake() and await_signallers() of lib/base/wakeups.h, which the stand-in's semaphores
   use, too.

   Three messages, two senders, three receivers with and without a time limit. Everything ends; a receiver that
   sleeps beside a message is no end.

   FAULTS: NO_AWAIT COUNTS_LATE WAKES_ONE
   WEAK: PATIENCE */

#define MESSAGES 3
#define RECEIVERS 3

byte mutex = 0;
byte queued = 0, taken = 0;
byte waiting = 0, woken = 0, signalling = 0;
bool asleep[RECEIVERS];
bool gone = false;                               /* the queue's memory */
byte here = RECEIVERS;

#define ACQUIRE atomic { mutex == 0 -> assert(!gone); mutex = 1 }
#define RELEASE mutex = 0

inline cond_signal() {                           /* wakes any one */
    atomic {
        assert(!gone);
        if
        :: asleep[0] -> asleep[0] = false
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
        :: else
        fi
    }
}

#ifdef WAKES_ONE
#define NOBODY_TO_WAKE (waiting == 0 || woken > 0)
#else
#define NOBODY_TO_WAKE (waiting == 0)
#endif

inline send() {
    ACQUIRE;
    queued++;
    if
    :: NOBODY_TO_WAKE -> RELEASE
    :: else ->
#ifdef COUNTS_LATE
        d_step { waiting--; woken++; RELEASE };
        signalling++;
#else
        d_step { waiting--; woken++; signalling++; RELEASE };
#endif
        cond_signal();
        atomic { assert(!gone); signalling-- }
    fi
}

proctype sender(byte count) {
    do
    :: count > 0 -> send(); count--
    :: else -> break
    od
}

inline delete_queue() {
#ifndef NO_AWAIT
#ifdef PATIENCE
    if
    :: signalling == 0
    :: signalling > 0                            /* 100 ms are over */
    fi;
#else
    signalling == 0;
#endif
#endif
    atomic { assert(mutex == 0); gone = true }
}

proctype receiver(byte me; bool limited) {
    bool done = false, last = false;
    do
    :: done -> break
    :: !done ->
        ACQUIRE;
        if
        :: queued == 0 && taken < MESSAGES ->
            d_step { waiting++; asleep[me] = true; RELEASE };
            if
            :: atomic { !asleep[me] && mutex == 0 -> mutex = 1 }
            :: limited; atomic { mutex == 0 -> mutex = 1 }; asleep[me] = false; done = true
            fi;
            if
            :: woken > 0 -> woken--
            :: else -> waiting--
            fi
        :: else
        fi;
        d_step {
            if
            :: queued > 0 -> queued--; taken++
            :: else
            fi;
            done = done || taken == MESSAGES;
            /* The messages say which is the last; nobody else uses the queue by then. */
            if
            :: done -> here--; last = here == 0 && taken == MESSAGES
            :: else
            fi;
            RELEASE
        }
    od;
    if
    :: last -> delete_queue()
    :: else
    fi
}

/* Where all the others wait: no message beside a sleeper. One that sleeps without any is sent home. */
proctype monitor() {
    do
    :: timeout ->
        assert(gone || queued == 0 || (!asleep[0] && !asleep[1] && !asleep[2]));
        if
        :: asleep[0] -> asleep[0] = false
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
        :: else -> break
        fi
    od
}

init {
    atomic {
        run sender(1); run sender(2);
        run receiver(0, false); run receiver(1, false); run receiver(2, true);
        run monitor()
    }
}
