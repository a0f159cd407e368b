/* SPDX-License-Identifier: Apache-2.0 */
/* The process reader/writer lock: three processes of two threads each, one of which may be killed at any moment.
   Stands for lock_record(), read_locked(), write_locked(), unlock_record(), read_unlocked(), write_unlocked(),
   raise_nice() and lower_nice() of lib/utils/proc_rwlock.cpp, and for fcntl() as POSIX has it.

   Every thread chooses what it does, within its kind, so that all ends in a state without a successor: one that is not the end is a
   deadlock. With OVERLAP the readers of a process go on for ever.

   FAULTS: NO_WAKE NO_WAIT LOWERED_TWICE
   WEAK: OVERLAP writer_gets_in */

#define PROCESSES 3
#define THREADS 2
#define ALL (PROCESSES * THREADS)
#define NONE 0
#define READ 1
#define WRITE 2
#define NOBODY 255

byte file[PROCESSES];                           /* the lock that the system holds for a process */
byte mutex[PROCESSES], state[PROCESSES], owner[PROCESSES];
byte readers[PROCESSES], rwaiting[PROCESSES], wwaiting[PROCESSES];
bool lowered[PROCESSES], dead[PROCESSES];
byte holders[PROCESSES];                        /* of the raised priority */
bool on_rcond[ALL], on_wcond[ALL];
byte reading = 0, writing = 0;                  /* what is inside, of the living */
byte inside[ALL];
bool written = false;

#define BUSY(p, kind) (file[(p + 1) % 3] == WRITE || file[(p + 2) % 3] == WRITE || \
                       (kind == WRITE && (file[(p + 1) % 3] == READ || file[(p + 2) % 3] == READ)))
#define ACQUIRE atomic { mutex[p] == 0 -> mutex[p] = 1 }
#define RELEASE mutex[p] = 0
#define WAKE_ALL(cond) cond[2 * p] = false; cond[2 * p + 1] = false
#define SLEEP(cond) cond[me] = true; RELEASE; atomic { !cond[me] && mutex[p] == 0 -> mutex[p] = 1 }
/* What runs with the mutex held is one step: nobody else looks at the record meanwhile, but where it waits.
   Waits, with the mutex held, until the system gives the lock. */
#define FILE_LOCK(kind) atomic { !BUSY(p, kind) -> file[p] = kind }
#define ENTER(kind) inside[me] = kind; reading = reading + (kind == READ); writing = writing + (kind == WRITE); \
                             assert(writing == 0 || (writing == 1 && reading == 0)); assert(holders[p] > 0)
#define LEAVE reading = reading - (inside[me] == READ); writing = writing - (inside[me] == WRITE); inside[me] = NONE
#define GIVE_UP assert(holders[p] > 0); holders[p]--; got = false

inline lock_for_reading(try) {
    got = true;
    holders[p]++;
    ACQUIRE;
    if
    :: state[p] == NONE ->
        readers[p]++;
        state[p] = READ; owner[p] = me;
        if
        :: try && BUSY(p, READ) -> state[p] = NONE; owner[p] = NOBODY; readers[p]--; RELEASE ; GIVE_UP
        :: !try || !BUSY(p, READ) -> FILE_LOCK(READ); RELEASE
        fi
    :: state[p] != NONE && readers[p] > 0 ->
        assert(state[p] == READ);
        if
        :: try && wwaiting[p] > 0 -> RELEASE; GIVE_UP
        :: else -> readers[p]++; RELEASE
        fi
    :: state[p] != NONE && readers[p] == 0 ->
        if
        :: try -> RELEASE; GIVE_UP
        :: else ->
            rwaiting[p]++;
            do
            :: state[p] == WRITE -> SLEEP(on_rcond)
            :: else -> break
            od;
            rwaiting[p]--; readers[p]++;
            if
            :: state[p] == NONE -> state[p] = READ; owner[p] = me; FILE_LOCK(READ)
            :: else
            fi;
            RELEASE
        fi
    fi
}

inline lock_for_writing(try) {
    got = true;
    holders[p]++;
    ACQUIRE;
    if
    :: state[p] != NONE && try -> RELEASE; GIVE_UP; refused = true
    :: else ->
        if
        :: state[p] != NONE ->
            wwaiting[p]++;
            do
            :: state[p] != NONE -> SLEEP(on_wcond)
            :: else -> break
            od;
            wwaiting[p]--
        :: else
        fi;
        state[p] = WRITE;
        if
        :: try && BUSY(p, WRITE) -> lowered[p] = true; RELEASE; GIVE_UP
        :: !try || !BUSY(p, WRITE) -> atomic { !BUSY(p, WRITE) -> file[p] = WRITE; lowered[p] = false }; RELEASE
        fi
    fi
}

#ifdef LOWERED_TWICE
#define RAISED (state[p] != NONE)
#else
#define RAISED (state[p] != NONE && !lowered[p])
#endif
#define LOWER if :: raised -> assert(holders[p] > 0); holders[p]-- :: else fi

inline unlock_reading() {
    ACQUIRE;
    raised = RAISED; lowered[p] = false; readers[p]--;
    if
    :: owner[p] != me ->
        if
        :: readers[p] == 0 -> WAKE_ALL(on_rcond)
        :: else
        fi
    :: else ->
#ifndef NO_WAIT
        do
        :: readers[p] > 0 -> SLEEP(on_rcond)
        :: else -> break
        od;
#endif
        owner[p] = NOBODY; state[p] = NONE;
#ifndef NO_WAKE
        if
        :: wwaiting[p] > 0 -> WAKE_ALL(on_wcond)
        :: else
        fi;
#endif
        file[p] = NONE
    fi;
    RELEASE;
    LOWER
}

inline unlock_writing() {
    ACQUIRE;
    raised = RAISED; lowered[p] = false; state[p] = NONE; file[p] = NONE;
    if
    :: rwaiting[p] > 0 -> WAKE_ALL(on_rcond)
    :: rwaiting[p] == 0 && wwaiting[p] > 0 ->  /* one of them */
        if
        :: on_wcond[2 * p] -> on_wcond[2 * p] = false
        :: on_wcond[2 * p + 1] -> on_wcond[2 * p + 1] = false
        :: !on_wcond[2 * p] && !on_wcond[2 * p + 1]
        fi
    :: else
    fi;
    RELEASE;
    LOWER
}

#define READS  atomic { lock_for_reading(false); ENTER(READ) }; atomic { LEAVE; unlock_reading() }
#define WRITES atomic { lock_for_writing(false); ENTER(WRITE) }; atomic { LEAVE; unlock_writing() }

proctype thread(byte me) {
    byte p = me / THREADS;
    bool got, raised, refused;
    {
        if
#ifdef OVERLAP
        :: p == 0 ->
            do
            :: READS
            od
        :: p == 1 -> WRITES; written = true
#else
        :: me != 3 -> READS
        :: me != 2 && me != 5 -> WRITES
        :: me == 0 ->
            atomic {
                lock_for_reading(true);
                if
                :: got -> ENTER(READ)
                :: else
                fi
            };
            if
            :: got -> atomic { LEAVE; unlock_reading() }
            :: else
            fi
        :: me == 1 ->
            atomic {
                lock_for_writing(true);
                if
                :: got -> ENTER(WRITE)
                :: else
                fi
            };
            if
            :: got -> atomic { LEAVE; unlock_writing() }
            :: !got && !refused -> atomic { unlock_writing() }  /* busy elsewhere: the record stays taken */
            :: else
            fi
#endif
        fi
    } unless { dead[p] }
}

/* All of a process goes at once, and its lock with it. */
proctype killer() {
    if
    :: d_step {
        dead[2] = true; file[2] = NONE;
        reading = reading - (inside[4] == READ) - (inside[5] == READ);
        writing = writing - (inside[4] == WRITE) - (inside[5] == WRITE);
        inside[4] = NONE; inside[5] = NONE }
    :: skip
    fi
}

/* At the end nothing is held, and every process has its own priority again. */
proctype monitor() {
    timeout ->
        assert(holders[0] == 0 && state[0] == NONE && file[0] == NONE);
        assert(holders[1] == 0 && state[1] == NONE && file[1] == NONE)
}

init {
    byte i = 0;
    atomic {
        do
        :: i < PROCESSES -> owner[i] = NOBODY; i++
        :: else -> break
        od;
        i = 0;
        do
#ifdef OVERLAP
        :: i < 3 -> run thread(i); i++
#else
        :: i < ALL -> run thread(i); i++
#endif
        :: else -> break
        od;
#ifndef OVERLAP
        run killer();
        run monitor()
#endif
    }
}

#ifdef OVERLAP
ltl writer_gets_in { <> written }
#endif
