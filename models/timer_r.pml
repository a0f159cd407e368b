/* SPDX-License-Identifier: Apache-2.0 */
/* The timer service: users that create, set and cancel while another closes, so that the service starts, is woken,
   ends and starts anew. Stands for timer_init_r(), start_service(), create(), set_timer(), tell_service(),
   timer_cancel_r(), timer_close_r(), finish_closed_service(), service_thread(), waited() and deliver() of
   lib/utils/timer_r.cpp, and for timer_callback() and timer_cleanup() of lib/utils/timer.cpp.

   What runs with the timer mutex held is one step. A clock of few ticks takes the place of time; a timer is on the
   chain when its time is not 0. Everything ends: in that state the monitor looks for timers that were slept over,
   and for threads of closed services.

   FAULTS: NO_WAKE NO_EPOCH KEEPS_WAKING LEAVES_SERVICE
   WEAK: ORPHANS */

#define SERVICES 4
#define NOBODY 255
#define LAST 4                                   /* tick */
mtype = { not_started, by_thread, closed };

byte clock = 1;
mtype mode = not_started;
byte service = NOBODY, wake = NOBODY, next_service = 0, epoch = 0;
bool handler[SERVICES];                          /* of a timer runs */
bool asleep[SERVICES], timed[SERVICES], freed[SERVICES], running[SERVICES];
byte until[SERVICES];
byte due[2];                                     /* a timer's time on the chain, or 0 */
byte users = 3;

#define EMPTY (due[0] == 0 && due[1] == 0)
#define FIRST_IS_0 (due[0] != 0 && (due[1] == 0 || due[0] <= due[1]))
#define FIRST_TIME (FIRST_IS_0 -> due[0] : due[1])
#define IN_CHARGE(me) (service == me && mode == by_thread)

inline signal_service() {
    if
    :: wake != NOBODY -> assert(!freed[wake]); asleep[wake] = false
    :: else
    fi
}

inline finish_closed_service() {
    if
    :: mode == closed ->
#ifndef KEEPS_WAKING
        wake = NOBODY;
#endif
        service = NOBODY; epoch++; due[0] = 0; due[1] = 0; mode = not_started
    :: else
    fi
}

proctype service_thread(byte me) {
    byte my_epoch, deadline;                     /* 0: none */
    bool pass, ended;
    atomic {
        do
        :: !IN_CHARGE(me) -> break
        :: IN_CHARGE(me) ->
            pass = !EMPTY && FIRST_TIME <= clock;
            ended = pass;
            do                                   /* waited() */
            :: ended -> break
            :: !ended ->
                timed[me] = !EMPTY; until[me] = FIRST_TIME; deadline = FIRST_TIME; asleep[me] = true;
                if
                :: !asleep[me] -> ended = true
                :: asleep[me] && deadline != 0 && deadline <= clock ->
                    asleep[me] = false;
                    if
                    :: !IN_CHARGE(me) -> ended = true
                    :: IN_CHARGE(me) && (EMPTY || FIRST_TIME <= clock) -> ended = true; pass = true
                    :: else
                    fi
                fi
            od;
            pass = pass && IN_CHARGE(me);
            my_epoch = epoch;
            do                                   /* timer_callback() */
#ifdef NO_EPOCH
            :: pass && !EMPTY && FIRST_TIME <= clock ->
#else
            :: pass && my_epoch == epoch && !EMPTY && FIRST_TIME <= clock ->
#endif
                assert(service == me);
                if
                :: FIRST_IS_0 -> due[0] = 0
                :: else -> due[1] = 0
                fi;
                handler[me] = true;
                !handler[me]                     /* runs without the mutex */
            :: else -> break
            od
        od;
        if
        :: service == me -> finish_closed_service()
        :: else
        fi
    };
    atomic { freed[me] = true; running[me] = false; asleep[me] = false; timed[me] = false; until[me] = 0 }
}

inline start_service() {
    if
    :: mode == by_thread                         /* looked at without the mutex */
    :: else ->
        atomic {
#ifdef LEAVES_SERVICE
            if
            :: mode == closed -> mode = not_started
            :: else
            fi;
#else
            finish_closed_service();
#endif
            if
            :: mode == not_started ->
                assert(next_service < SERVICES);
                service = next_service; wake = service; mode = by_thread; running[service] = true;
                run service_thread(service); next_service++
            :: else
            fi
        }
    fi
}

inline tell_service(before) {
    if
    :: FIRST_TIME == before
    :: FIRST_TIME != before && service != NOBODY && !EMPTY && timed[service] && until[service] <= FIRST_TIME
    :: else ->
        if
        :: service != NOBODY -> timed[service] = !EMPTY; until[service] = FIRST_TIME
        :: else
        fi;
#ifndef NO_WAKE
        signal_service()
#endif
    fi
}

inline set_timer(ticks) {
    atomic {
        first = FIRST_TIME;
        doomed = mode == closed && due[t] != 0;
        finish_closed_service();
        if
        :: !doomed -> due[t] = clock + ticks; tell_service(first)
        :: else
        fi;
        first = 0; doomed = false
    }
}

proctype user(byte t) {
    byte first;
    bool doomed;
    start_service();                             /* timer_create_r() */
    set_timer(2 - t);
    if
    :: t == 1
    :: set_timer(1)
    :: atomic { first = FIRST_TIME; due[t] = 0; tell_service(first); first = 0 }  /* timer_cancel_r() */
    :: start_service(); set_timer(1)
    fi;
    users--
}

proctype closer() {
    atomic {
        if
        :: mode == by_thread -> mode = closed
        :: else
        fi;
        signal_service()
    };
    users--
}

proctype time() {
    do
    :: clock < LAST -> clock++
    :: else -> break
    od
}

proctype handlers() {
end:
    do
    :: atomic { handler[0] -> handler[0] = false }
    :: atomic { handler[1] -> handler[1] = false }
    :: atomic { handler[2] -> handler[2] = false }
    :: atomic { handler[3] -> handler[3] = false }
    od
}

#define DUE(t) (due[t] != 0 && due[t] <= clock)
proctype monitor() {
    timeout ->
        assert(users == 0 && mode != closed);
        assert(running[0] + running[1] + running[2] + running[3] == (mode == by_thread));
#ifdef ORPHANS
        assert(!DUE(0) && !DUE(1));
#endif
        assert(mode != by_thread || (!DUE(0) && !DUE(1)));
        if
        :: mode == by_thread -> atomic { mode = closed; signal_service() }
        :: else
        fi
}

init {
    atomic { run user(0); run user(1); run closer(); run time(); run handlers(); run monitor() }
}
