-- kzqprcs: session summary. One row: the user sessions of this instance (see kzqprcd).
-- Reads: sys.dm_exec_sessions, sys.dm_exec_requests, sys.dm_os_ring_buffers (scheduler
--        monitor).
-- Needs: VIEW SERVER STATE.
-- SRVCPUPCT: this instance's share of the machine's CPU; APPCPUPCT: the share of every
-- other process (100 - idle - this instance), from the newest scheduler-monitor record.
-- Sleeping on locks: requests suspended on a lock wait (LCK_M_*); sleeping on other:
-- every other suspended request and every session without a request. NUMLOGSUS: requests
-- waiting for log space (LOGMGR_RESERVE_APPEND) or a log buffer (LOGBUFFER).
WITH cpu AS (
    SELECT TOP (1)
        rb.record.value('(./Record/SchedulerMonitorEvent/SystemHealth/ProcessUtilization)[1]', 'int') AS sql_pct,
        rb.record.value('(./Record/SchedulerMonitorEvent/SystemHealth/SystemIdle)[1]', 'int') AS idle_pct
    FROM (SELECT [timestamp] AS ts, CONVERT(xml, record) AS record
          FROM sys.dm_os_ring_buffers
          WHERE ring_buffer_type = N'RING_BUFFER_SCHEDULER_MONITOR'
            AND record LIKE N'%<SystemHealth>%') AS rb
    ORDER BY rb.ts DESC
),
per_session AS (
    SELECT s.session_id,
           MAX(CASE WHEN r.blocking_session_id > 0 THEN 1 ELSE 0 END) AS blocked,
           MAX(CASE WHEN r.status = N'suspended' AND r.wait_type LIKE N'LCK[_]M[_]%' THEN 1 ELSE 0 END) AS on_lock,
           MAX(CASE WHEN r.session_id IS NULL
                      OR (r.status = N'suspended' AND ISNULL(r.wait_type, N'') NOT LIKE N'LCK[_]M[_]%')
                    THEN 1 ELSE 0 END) AS on_other,
           MAX(CASE WHEN r.wait_type IN (N'LOGMGR_RESERVE_APPEND', N'LOGBUFFER') THEN 1 ELSE 0 END) AS on_log
    FROM sys.dm_exec_sessions AS s
    LEFT JOIN sys.dm_exec_requests AS r ON r.session_id = s.session_id
    WHERE s.is_user_process = 1
    GROUP BY s.session_id
),
totals AS (
    SELECT COUNT(*) AS sessions,
           SUM(blocked) AS blocked,
           SUM(on_lock) AS on_lock,
           SUM(CASE WHEN on_lock = 0 THEN on_other ELSE 0 END) AS on_other,
           SUM(on_log) AS on_log
    FROM per_session
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    c.sql_pct AS SRVCPUPCT,
    100 - c.idle_pct - c.sql_pct AS APPCPUPCT,
    t.sessions AS NUMPROCESS,
    t.blocked AS NUMBLOCK,
    t.blocked * 100 / NULLIF(t.sessions, 0) AS PCTBLOCK,
    t.on_lock AS NUMSLPLCK,
    t.on_lock * 100 / NULLIF(t.sessions, 0) AS PCTSLPLCK,
    t.on_other AS NUMSLPOTH,
    t.on_other * 100 / NULLIF(t.sessions, 0) AS PCTSLPOTH,
    (t.on_lock + t.on_other) * 100 / NULLIF(t.sessions, 0) AS PCTSLEEP,
    t.on_log AS NUMLOGSUS
FROM totals AS t
LEFT JOIN cpu AS c ON 1 = 1;
