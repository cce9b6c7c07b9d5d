-- kzqsrvd: server detail. One row: this instance.
-- Reads: SERVERPROPERTY, sys.dm_os_sys_info, sys.dm_os_windows_info, sys.dm_tran_locks,
--        sys.configurations, sys.dm_os_performance_counters.
-- Needs: VIEW SERVER STATE (the DMVs), VIEW ANY DEFINITION (sys.configurations).
-- Locks: MAXLOCKS and PCTLOCKS have a value only when the 'locks' option fixes a
-- number; with the default (0, dynamic) the server has no lock limit to compare to.
-- Plan cache: 'Cache Pages' and 'Cache Object Counts' of the Plan Cache object,
-- instance _Total; sizes in KB (8 KB pages).
WITH counters AS (
    SELECT RTRIM(SUBSTRING(object_name, CHARINDEX(N':', object_name) + 1, 128)) AS obj,
           RTRIM(counter_name) AS ctr,
           RTRIM(instance_name) AS inst,
           cntr_value AS val
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Memory Manager' OR object_name LIKE N'%:Plan Cache'
),
memory AS (
    SELECT
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Database Cache Memory (KB)' THEN val END) AS data_cache_kb,
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Total Server Memory (KB)' THEN val END) AS total_kb,
        MAX(CASE WHEN obj = N'Plan Cache' AND ctr = N'Cache Pages' AND inst = N'_Total' THEN val END) * 8 AS plan_cache_kb,
        MAX(CASE WHEN obj = N'Plan Cache' AND ctr = N'Cache Object Counts' AND inst = N'_Total' THEN val END) AS plan_objects,
        MAX(CASE WHEN obj = N'Plan Cache' AND ctr = N'Cache Objects in use' AND inst = N'_Total' THEN val END) AS plan_objects_in_use
    FROM counters
),
locks AS (
    SELECT (SELECT COUNT_BIG(*) FROM sys.dm_tran_locks) AS current_locks,
           (SELECT NULLIF(CAST(value_in_use AS int), 0) FROM sys.configurations WHERE name = N'locks') AS max_locks
),
version AS (
    SELECT CAST(SERVERPROPERTY('ProductVersion') AS nvarchar(32)) AS full_version
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    N'SQL Server' AS SRVTYPE,
    PARSENAME(v.full_version, 4) + N'.' + PARSENAME(v.full_version, 3) AS SRVVERSN,
    N'Active' AS SRVSTATUS,
    l.current_locks AS CURLOCKS,
    l.max_locks AS MAXLOCKS,
    l.current_locks * 100 / l.max_locks AS PCTLOCKS,
    m.data_cache_kb AS DATACSZ,
    m.plan_cache_kb AS PROCCSZ,
    m.plan_cache_kb * 100 / NULLIF(m.total_kb, 0) AS PROCCPCT,
    i.sqlserver_start_time AS SRVSTARTT,
    DATEDIFF(second, i.sqlserver_start_time, GETDATE()) AS SRVAGE,
    CAST(SERVERPROPERTY('ErrorLogFileName') AS nvarchar(260)) AS ERRLOG,
    CASE WHEN @@VERSION LIKE N'%on Linux%' THEN N'Linux' ELSE N'Windows' END AS OSTYPE,
    w.windows_release AS OSVERSN,
    m.plan_objects_in_use * 100 / NULLIF(m.plan_objects, 0) AS PCTPROCBA,
    m.plan_objects AS PROCBTOT,
    m.plan_cache_kb AS PROCCSIZ,
    m.plan_cache_kb * 100 / NULLIF(m.total_kb, 0) AS PCTPROCCU,
    CAST(SERVERPROPERTY('ErrorLogFileName') AS nvarchar(260)) AS UERRLOG,
    v.full_version AS SQLVER
FROM sys.dm_os_sys_info AS i
CROSS JOIN memory AS m
CROSS JOIN locks AS l
CROSS JOIN version AS v
OUTER APPLY (SELECT TOP (1) windows_release FROM sys.dm_os_windows_info) AS w;
