-- kzqsrvre: server roll-up. One row: this instance, summing up the detail tables.
-- Reads: SERVERPROPERTY, sys.dm_os_sys_info, sys.dm_os_ring_buffers (scheduler monitor),
--        sys.databases, sys.master_files, sys.database_files and FILEPROPERTY in each
--        database, sys.dm_os_performance_counters, sys.dm_tran_locks, sys.configurations,
--        sys.dm_exec_sessions, sys.dm_exec_requests, the system_health session's
--        ring_buffer target (sys.dm_xe_sessions, sys.dm_xe_session_targets),
--        @@TOTAL_READ, @@TOTAL_WRITE, @@MAX_CONNECTIONS.
-- Needs: VIEW SERVER STATE, VIEW ANY DEFINITION; CONNECT ANY DATABASE for MINDBFREE
-- (used data space exists only inside each database: no server-wide view has it).
-- MINDBFREE, MINLOGFREE: the lowest free percentage of the data files / the log among the
-- online databases. MAXLOCK / MAXBLOCK: the database holding the most locks / the most
-- waiting lock requests; TBMXLOCK: the table the most object locks are held on.
-- Errors: LASTERRAGE, MAXSEV, MAXSEVTIME, NUMSEVG17 come from the error_reported events
-- that the always-on system_health session keeps (severity 20 and up, and memory and
-- scheduling errors); see kzqprobd.
-- rate: PHYRDPSEC, PHYWRPSEC
DECLARE @file_used TABLE (database_id int NOT NULL, file_id int NOT NULL, used_pages bigint NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name) + N'.sys.sp_executesql @q;'
FROM sys.databases
WHERE state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2);
INSERT INTO @file_used (database_id, file_id, used_pages)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max)',
    @q = N'SELECT DB_ID(), file_id, CAST(FILEPROPERTY(name, ''SpaceUsed'') AS bigint) FROM sys.database_files;';

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
data_free AS (
    SELECT mf.database_id,
           100 - SUM(u.used_pages) * 100 / NULLIF(SUM(CAST(mf.size AS bigint)), 0) AS pct_free
    FROM sys.master_files AS mf
    JOIN @file_used AS u ON u.database_id = mf.database_id AND u.file_id = mf.file_id
    WHERE mf.type = 0
    GROUP BY mf.database_id
),
log_used AS (
    SELECT RTRIM(instance_name) AS database_name, cntr_value AS pct_used
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Databases'
      AND RTRIM(counter_name) = N'Percent Log Used'
      AND RTRIM(instance_name) IN (SELECT name FROM sys.databases)
),
databases AS (
    SELECT COUNT(*) AS total FROM sys.databases
),
space AS (
    SELECT (SELECT MIN(pct_free) FROM data_free) AS min_data_free,
           (SELECT 100 - MAX(pct_used) FROM log_used) AS min_log_free
),
lock_rows AS (
    SELECT resource_database_id, resource_type, resource_associated_entity_id, request_status
    FROM sys.dm_tran_locks
),
locks AS (
    SELECT COUNT_BIG(*) AS current_locks,
           COUNT(CASE WHEN request_status = N'WAIT' THEN 1 END) AS waiting
    FROM lock_rows
),
lock_limit AS (
    SELECT NULLIF(CAST(value_in_use AS int), 0) AS max_locks
    FROM sys.configurations
    WHERE name = N'locks'
),
most_locked_db AS (
    SELECT TOP (1) DB_NAME(resource_database_id) AS name
    FROM lock_rows
    GROUP BY resource_database_id
    ORDER BY COUNT(*) DESC
),
most_blocked_db AS (
    SELECT TOP (1) DB_NAME(resource_database_id) AS name
    FROM lock_rows
    WHERE request_status = N'WAIT'
    GROUP BY resource_database_id
    ORDER BY COUNT(*) DESC
),
most_locked_table AS (
    SELECT TOP (1)
        OBJECT_NAME(CAST(resource_associated_entity_id AS int), resource_database_id) AS name,
        OBJECT_SCHEMA_NAME(CAST(resource_associated_entity_id AS int), resource_database_id) + N'.'
            + OBJECT_NAME(CAST(resource_associated_entity_id AS int), resource_database_id) AS full_name
    FROM lock_rows
    WHERE resource_type = N'OBJECT'
    GROUP BY resource_database_id, resource_associated_entity_id
    ORDER BY COUNT(*) DESC
),
sessions AS (
    SELECT COUNT(DISTINCT s.session_id) AS user_sessions,
           COUNT(DISTINCT CASE WHEN r.blocking_session_id > 0 THEN s.session_id END) AS blocked
    FROM sys.dm_exec_sessions AS s
    LEFT JOIN sys.dm_exec_requests AS r ON r.session_id = s.session_id
    WHERE s.is_user_process = 1
),
errors AS (
    SELECT
        CONVERT(datetime2(0), SWITCHOFFSET(e.n.value('@timestamp', 'datetimeoffset'),
                                           DATENAME(TZOFFSET, SYSDATETIMEOFFSET()))) AS msg_time,
        e.n.value('(data[@name="severity"]/value)[1]', 'int') AS severity
    FROM (SELECT CAST(t.target_data AS xml) AS data
          FROM sys.dm_xe_sessions AS xs
          JOIN sys.dm_xe_session_targets AS t ON t.event_session_address = xs.address
          WHERE xs.name = N'system_health' AND t.target_name = N'ring_buffer') AS rb
    CROSS APPLY rb.data.nodes('/RingBufferTarget/event[@name="error_reported"]') AS e(n)
),
error_summary AS (
    SELECT MAX(msg_time) AS last_time,
           MAX(severity) AS max_severity,
           COUNT(CASE WHEN severity >= 17 THEN 1 END) AS severe
    FROM errors
),
worst_error AS (
    SELECT TOP (1) msg_time
    FROM errors
    ORDER BY severity DESC, msg_time DESC
),
version AS (
    SELECT CAST(SERVERPROPERTY('ProductVersion') AS nvarchar(32)) AS full_version
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    N'Active' AS COLLSTATUS,
    l.current_locks * 100 / ll.max_locks AS PCTLOCKS,
    c.sql_pct AS PCTCPU,
    100 - c.idle_pct AS PCTOSCPU,
    DATEDIFF(second, i.sqlserver_start_time, GETDATE()) AS SRVAGE,
    PARSENAME(v.full_version, 4) + N'.' + PARSENAME(v.full_version, 3) AS SRVVERSN,
    d.total AS NUMDBS,
    sp.min_data_free AS MINDBFREE,
    sp.min_log_free AS MINLOGFREE,
    l.current_locks AS NUMLOCKS,
    l.waiting AS NUMCONFL,
    mld.name AS MAXLOCK,
    mbd.name AS MAXBLOCK,
    mlt.name AS TBMXLOCK,
    s.blocked * 100 / NULLIF(s.user_sessions, 0) AS PCTBLOCK,
    c.sql_pct AS SRVCPUPCT,
    100 - c.idle_pct - c.sql_pct AS APPCPUPCT,
    s.user_sessions AS NUMPROCESS,
    s.blocked AS NUMBLOCK,
    DATEDIFF(minute, es.last_time, GETDATE()) AS LASTERRAGE,
    CAST(es.max_severity AS nvarchar(4)) AS MAXSEV,
    we.msg_time AS MAXSEVTIME,
    es.severe AS NUMSEVG17,
    s.user_sessions AS LOGONCURR,
    s.user_sessions * 100 / @@MAX_CONNECTIONS AS LOGONPCT,
    @@TOTAL_READ AS PHYRDPSEC,
    @@TOTAL_WRITE AS PHYWRPSEC,
    N'Active' AS SRVSTATUS,
    mld.name AS UMAXLOCK,
    mbd.name AS UMAXBLOCK,
    mlt.full_name AS UTBMXLOCK,
    v.full_version AS SQLVER
FROM sys.dm_os_sys_info AS i
CROSS JOIN databases AS d
CROSS JOIN space AS sp
CROSS JOIN locks AS l
CROSS JOIN lock_limit AS ll
CROSS JOIN sessions AS s
CROSS JOIN error_summary AS es
CROSS JOIN version AS v
LEFT JOIN cpu AS c ON 1 = 1
LEFT JOIN most_locked_db AS mld ON 1 = 1
LEFT JOIN most_blocked_db AS mbd ON 1 = 1
LEFT JOIN most_locked_table AS mlt ON 1 = 1
LEFT JOIN worst_error AS we ON 1 = 1;
