-- kzqprcd: sessions. One row per user session (TOP (@max_rows): sessions in a blocking
-- chain first, then by CPU time).
-- Reads: sys.dm_exec_sessions, sys.dm_exec_requests, sys.dm_os_tasks, sys.dm_os_workers,
--        sys.dm_os_threads, sys.dm_resource_governor_workload_groups.
-- Needs: VIEW SERVER STATE (without it a login sees only its own session).
-- CPU in ms since the session began; IO is physical reads plus writes; MEMORY in 8 KB
-- pages; PCTCPU is the session's share of the CPU time of all user sessions now open;
-- BLOCKID is the session blocking this one (0: none); OSPID is the Windows thread of the
-- running request; SRVGROUP is the session's workload group; PROCDURSEC counts seconds
-- since the current (or last) batch began.
WITH sessions AS (
    SELECT s.session_id, s.status, s.cpu_time, s.reads, s.writes, s.memory_usage,
           s.login_name, s.host_name, s.host_process_id, s.program_name, s.nt_domain,
           s.nt_user_name, s.database_id, s.group_id, s.last_request_start_time,
           r.status AS request_status, r.command, r.blocking_session_id, r.start_time,
           r.database_id AS request_database_id, r.task_address,
           ROW_NUMBER() OVER (PARTITION BY s.session_id ORDER BY r.request_id) AS request_rank
    FROM sys.dm_exec_sessions AS s
    LEFT JOIN sys.dm_exec_requests AS r ON r.session_id = s.session_id
    WHERE s.is_user_process = 1
),
all_cpu AS (
    SELECT SUM(CAST(cpu_time AS bigint)) AS total
    FROM sys.dm_exec_sessions
    WHERE is_user_process = 1
),
blockers AS (
    SELECT DISTINCT blocking_session_id AS session_id
    FROM sys.dm_exec_requests
    WHERE blocking_session_id > 0
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    x.session_id AS PROCESSID,
    DB_NAME(COALESCE(x.request_database_id, x.database_id)) AS DBNAME,
    COALESCE(x.request_status, x.status) AS STATUS,
    x.cpu_time AS CPU,
    x.cpu_time * 100 / NULLIF(ac.total, 0) AS PCTCPU,
    CAST(x.reads AS bigint) + x.writes AS IO,
    x.memory_usage AS MEMORY,
    CAST(ISNULL(x.blocking_session_id, 0) AS nvarchar(8)) AS BLOCKID,
    CAST(th.os_thread_id AS nvarchar(10)) AS OSPID,
    x.login_name AS SRVUSER,
    ISNULL(x.command, N'AWAITING COMMAND') AS CMDNAME,
    x.host_name AS CLNTHOST,
    CAST(x.host_process_id AS nvarchar(16)) AS CLNTPID,
    x.program_name AS PGMNAME,
    x.nt_user_name AS CLNTUSER,
    wg.name AS SRVGROUP,
    DB_NAME(COALESCE(x.request_database_id, x.database_id)) AS UDBNAME,
    ISNULL(x.command, N'AWAITING COMMAND') AS UCMDNAME,
    x.program_name AS UPGMNAME,
    DATEDIFF(second, COALESCE(x.start_time, x.last_request_start_time), GETDATE()) AS PROCDURSEC,
    CASE WHEN x.nt_user_name <> N'' THEN x.nt_domain + N'\' + x.nt_user_name END AS PROCNTUSER
FROM sessions AS x
CROSS JOIN all_cpu AS ac
LEFT JOIN sys.dm_resource_governor_workload_groups AS wg ON wg.group_id = x.group_id
LEFT JOIN blockers AS b ON b.session_id = x.session_id
OUTER APPLY (
    SELECT TOP (1) t.os_thread_id
    FROM sys.dm_os_tasks AS k
    JOIN sys.dm_os_workers AS w ON w.worker_address = k.worker_address
    JOIN sys.dm_os_threads AS t ON t.thread_address = w.thread_address
    WHERE k.task_address = x.task_address
) AS th
WHERE x.request_rank = 1
ORDER BY CASE WHEN x.blocking_session_id > 0 OR b.session_id IS NOT NULL THEN 0 ELSE 1 END,
         x.cpu_time DESC;
