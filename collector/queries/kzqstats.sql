-- kzqstats: statistics summary. One row (see kzqstatd).
-- Reads: sys.dm_os_ring_buffers (scheduler monitor), sys.dm_exec_sessions,
--        sys.dm_exec_connections, sys.dm_os_performance_counters ('Logins/sec',
--        'Logouts/sec' of the General Statistics object), @@TOTAL_READ, @@TOTAL_WRITE,
--        @@TOTAL_ERRORS, @@PACK_RECEIVED, @@PACK_SENT, @@MAX_CONNECTIONS.
-- Needs: VIEW SERVER STATE.
-- LOGONCURR: user sessions; LOGONMAX: the most connections the server allows. CLNTCNT:
-- client connections; PCTUSRCREM: the share of them coming over the network (not shared
-- memory). IOERRS: disk write errors since start; IOERRSPCT: their share of all disk
-- reads and writes since start. PHYRDPSEC, PHYWRPSEC, DISKIO: disk reads, writes and both
-- per second; NTWKRDRATE, NTWKWRRATE: packets received and sent per second.
-- rate: LOGONPSEC, PHYRDPSEC, PHYWRPSEC, DISKIO, NTWKRDRATE, NTWKWRRATE, LOGOUTPSEC
WITH cpu AS (
    SELECT TOP (1)
        rb.record.value('(./Record/SchedulerMonitorEvent/SystemHealth/ProcessUtilization)[1]', 'int') AS sql_pct
    FROM (SELECT [timestamp] AS ts, CONVERT(xml, record) AS record
          FROM sys.dm_os_ring_buffers
          WHERE ring_buffer_type = N'RING_BUFFER_SCHEDULER_MONITOR'
            AND record LIKE N'%<SystemHealth>%') AS rb
    ORDER BY rb.ts DESC
),
counters AS (
    SELECT MAX(CASE WHEN RTRIM(counter_name) = N'Logins/sec' THEN cntr_value END) AS logins,
           MAX(CASE WHEN RTRIM(counter_name) = N'Logouts/sec' THEN cntr_value END) AS logouts
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:General Statistics'
),
sessions AS (
    SELECT COUNT(*) AS user_sessions
    FROM sys.dm_exec_sessions
    WHERE is_user_process = 1
),
connections AS (
    SELECT COUNT(*) AS clients,
           COUNT(CASE WHEN net_transport <> N'Shared memory' THEN 1 END) AS remote
    FROM sys.dm_exec_connections
    WHERE parent_connection_id IS NULL
),
io AS (
    SELECT CAST(@@TOTAL_READ AS bigint) AS reads,
           CAST(@@TOTAL_WRITE AS bigint) AS writes,
           CAST(@@TOTAL_ERRORS AS bigint) AS errors
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    c.sql_pct AS PCTCPU,
    s.user_sessions AS LOGONCURR,
    s.user_sessions * 100 / @@MAX_CONNECTIONS AS LOGONPCT,
    k.logins AS LOGONPSEC,
    @@MAX_CONNECTIONS AS LOGONMAX,
    io.reads AS PHYRDPSEC,
    io.writes AS PHYWRPSEC,
    io.reads + io.writes AS DISKIO,
    io.errors AS IOERRS,
    io.errors * 100 / NULLIF(io.reads + io.writes, 0) AS IOERRSPCT,
    n.clients AS CLNTCNT,
    n.clients * 100 / @@MAX_CONNECTIONS AS CLNTPCT,
    @@PACK_RECEIVED AS NTWKRDRATE,
    @@PACK_SENT AS NTWKWRRATE,
    n.remote * 100 / NULLIF(n.clients, 0) AS PCTUSRCREM,
    k.logouts AS LOGOUTPSEC
FROM sessions AS s
CROSS JOIN connections AS n
CROSS JOIN counters AS k
CROSS JOIN io
LEFT JOIN cpu AS c ON 1 = 1;
