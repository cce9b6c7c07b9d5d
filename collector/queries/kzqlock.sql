-- kzqlock: sessions holding or waiting for locks. One row per session and database it
-- locks in (TOP (@max_rows): sessions in a blocking chain first, then by session). The
-- shared lock every session holds on its current database does not count, nor does this
-- query's session.
-- Reads: sys.dm_tran_locks, sys.dm_exec_sessions, sys.dm_exec_requests,
--        sys.dm_resource_governor_workload_groups.
-- Needs: VIEW SERVER STATE.
-- BLOCKID: the session blocking this one (0: none). SRVUSER is the login, CLNTUSER the
-- client's Windows user, SRVGROUP the session's workload group.
WITH lock_sessions AS (
    SELECT request_session_id AS session_id, resource_database_id AS database_id
    FROM sys.dm_tran_locks
    WHERE request_session_id <> @@SPID
      AND NOT (resource_type = N'DATABASE' AND request_mode = N'S' AND request_status = N'GRANT')
    GROUP BY request_session_id, resource_database_id
),
blocking AS (
    SELECT session_id, MAX(blocking_session_id) AS blocked_by
    FROM sys.dm_exec_requests
    GROUP BY session_id
),
blockers AS (
    SELECT DISTINCT blocking_session_id AS session_id
    FROM sys.dm_exec_requests
    WHERE blocking_session_id > 0
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    DB_NAME(ls.database_id) AS DBNAME,
    ls.database_id AS DBID,
    s.login_name AS SRVUSER,
    s.nt_user_name AS CLNTUSER,
    wg.name AS SRVGROUP,
    ls.session_id AS PROCESSID,
    ISNULL(b.blocked_by, 0) AS BLOCKID,
    DB_NAME(ls.database_id) AS UDBNAME
FROM lock_sessions AS ls
LEFT JOIN sys.dm_exec_sessions AS s ON s.session_id = ls.session_id
LEFT JOIN sys.dm_resource_governor_workload_groups AS wg ON wg.group_id = s.group_id
LEFT JOIN blocking AS b ON b.session_id = ls.session_id
LEFT JOIN blockers AS k ON k.session_id = ls.session_id
ORDER BY CASE WHEN b.blocked_by > 0 OR k.session_id IS NOT NULL THEN 0 ELSE 1 END,
         ls.session_id;
